// The host model: one value per file under $TEVD_ROOT/platform/
// (docs/platform.md), read at each call and never cached, so that whoever
// owns the host changes it by changing a file.
#pragma once

#include <string>

// A name as it appears in a model path: '/' is written %2F, and "." and ".."
// have their dots spelled out, so no name leaves its directory.
std::string PlatformModel_EscapeName(const std::string &name);
std::string PlatformModel_Path(const std::string &relative);  // root + "/platform/" + relative
// The value of a model file, its trailing newlines dropped. False when the
// file is absent or refused (PlatformFile.h). The C++ libraries turn that
// false into HostCtl::Lib::HostCtlException, the C ones into a status.
bool PlatformModel_Read(const std::string &relative, std::string *value);
// Replaces a model file's value (newline added). False, with errno, when its
// directory is absent (never created here) or the file is not a regular one.
bool PlatformModel_Write(const std::string &relative, const std::string &value);
