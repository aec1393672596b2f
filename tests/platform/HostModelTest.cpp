// The host model: absent entries, escaped names, the system UUID
// record, the build check, the kernel time-stamp call and the log datagram.
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "Harness.h"
#include "HostCtl.h"
#include "KNO.h"
#include "MtlCtl.h"
#include "PlatformFile.h"
#include "PlatformLog.h"
#include "PlatformModel.h"
#include "Str.h"
#include "TevClock.h"

using namespace tevdtest;

namespace {

using HostCtl::Lib::HostCtlException;

class HostModel : public ::testing::Test {
 protected:
  ScratchRoot root_;
};

// Absent devices, options and VMs: the scsi, link-flap and page-retire correlator tests.
TEST_F(HostModel, AbsentOrUnreadableEntriesThrowHostCtlException) {
  EXPECT_THROW(HostCtl::HostFactory::GetHost()->GetStorageInfo()->GetPath("hba9:C0:T0:L0"),
               HostCtlException);
  EXPECT_THROW(HostCtl::Network::NetworkFactory::GetPortGroupByName("pg-guests"), HostCtlException);
  root_.Write("platform/storage/devices/naa.bad/status", "two");
  EXPECT_THROW(HostCtl::Storage::Lun("naa.bad").GetPathRedundancyStatus(), HostCtlException);
}

// Defects: a FIFO was opened and waited on for ever, a link to /dev/zero read until memory ran
// out. Only a regular file of at most the cap is read; the rest are refused without waiting.
TEST_F(HostModel, OnlyRegularFilesUpToTheCapAreReadFifosAndDevicesAreRefused) {
  root_.Write("ok", "value\n");
  root_.Write("big", std::string(100, 'b'));
  root_.MakeDir("dir");
  ASSERT_EQ(0, mkfifo(root_.Abs("fifo").c_str(), 0644));
  ASSERT_EQ(0, symlink("/dev/zero", root_.Abs("zero").c_str()));
  ASSERT_EQ(0, symlink(root_.Abs("ok").c_str(), root_.Abs("link").c_str()));
  const struct {
    const char *name;
    PlatformFileStatus status;
  } table[] = {{"ok", PlatformFileStatus::Ok},         {"link", PlatformFileStatus::Ok},
               {"absent", PlatformFileStatus::Absent}, {"ok/below", PlatformFileStatus::Absent},
               {"big", PlatformFileStatus::Refused},   {"dir", PlatformFileStatus::Refused},
               {"fifo", PlatformFileStatus::Refused},  {"zero", PlatformFileStatus::Refused}};
  unsigned long long refused = PlatformFile_Refused();
  for (const auto &row : table) {
    std::string content = "untouched";
    EXPECT_EQ(row.status, PlatformFile_Read(root_.Abs(row.name), 99, &content)) << row.name;
    EXPECT_EQ(row.status == PlatformFileStatus::Ok ? "value\n" : "untouched", content) << row.name;
  }
  EXPECT_EQ(refused + 4, PlatformFile_Refused());
  // Writing the host model never waits on a FIFO either.
  root_.MakeDir("platform");
  ASSERT_EQ(0, mkfifo(PlatformModel_Path("fifo").c_str(), 0644));
  EXPECT_FALSE(PlatformModel_Write("fifo", "1"));
  EXPECT_TRUE(PlatformModel_Write("value", "1"));
  EXPECT_EQ(refused + 5, PlatformFile_Refused());
}

TEST_F(HostModel, NameWithSlashIsStoredWithPercent2F) {
  EXPECT_EQ("a%2Fb%2Fc", PlatformModel_EscapeName("a/b/c"));
  EXPECT_EQ("%2E%2E", PlatformModel_EscapeName(".."));
  root_.Write("platform/network/portgroups/pg-mgmt \"vlan 10\"%2Fa", "ksw0\n");
  auto pg = HostCtl::Network::NetworkFactory::GetPortGroupByName("pg-mgmt \"vlan 10\"/a");
  EXPECT_EQ("pg-mgmt \"vlan 10\"/a", pg->GetName());
  EXPECT_EQ("ksw0", pg->GetVirtualSwitchName());
}

TEST_F(HostModel, SystemUuidRecordBytes) {
  uint8_t rec[KNO_SYSTEM_UUID_SIZE];
  EXPECT_NE(0, KNO_Get(KNO_NODE_system_systemUuid, nullptr, rec, sizeof rec));  // absent
  root_.Write("platform/nodes/system/systemUuid", "4C4C4544-0031-3510-8052-B4C04F4E3232\n");
  memset(rec, 0xEE, sizeof rec);
  ASSERT_EQ(0, KNO_Get(KNO_NODE_system_systemUuid, nullptr, rec, sizeof rec));
  const uint8_t binary[16] = {0x4c, 0x4c, 0x45, 0x44, 0x00, 0x31, 0x35, 0x10,
                              0x80, 0x52, 0xb4, 0xc0, 0x4f, 0x4e, 0x32, 0x32};
  EXPECT_EQ(0, memcmp(binary, rec, 16));
  EXPECT_STREQ("4c4c4544-0031-3510-8052-b4c04f4e3232", reinterpret_cast<const char *>(rec + 16));
  EXPECT_EQ(0, rec[55]);
  // A digit that is not hexadecimal, in either case, is not an identity.
  for (const char *bad :
       {"4C4C4544-0031-3510-8052-B4C04F4E323G", "4c4c4544-0031-3510-8052-b4c04f4e323z"}) {
    root_.Write("platform/nodes/system/systemUuid", bad);
    EXPECT_NE(0, KNO_Get(KNO_NODE_system_systemUuid, nullptr, rec, sizeof rec)) << bad;
  }
}

// Absent file: match (every daemon start); a mismatch aborts (scenario kernel-mismatch).
TEST_F(HostModel, BuildSignatureOfThisBuildMatchesAndAnotherIsReportedTruncated) {
  char kernel[4] = "", mine[64] = "";
  root_.Write("platform/kernel-build", std::string(KNO_BUILD_SIGNATURE) + " Jan  1 2024\n");
  EXPECT_EQ(0, KNO_CheckSig(21, kernel, sizeof kernel, mine, sizeof mine));
  root_.Write("platform/kernel-build", "other-sig Mar  3 2021 10:00:00\nsecond line\n");
  EXPECT_EQ(1, KNO_CheckSig(21, kernel, sizeof kernel, mine, sizeof mine));
  EXPECT_STREQ("Mar", kernel);
  EXPECT_STREQ(KNO_BUILD_DATE, mine);
}

TEST_F(HostModel, KernelTimestampAndLogDatagramFollowTheFakeClock) {
  FakeClock clock(1700000000);  // 2023-11-14 22:13:20 UTC
  clock.AdvanceUs(250);
  uint8_t buf[16];
  memset(buf, 0xEE, sizeof buf);
  ASSERT_EQ(0, MtlSyscall(MTL_SYSCALL_EVENT_TIMESTAMP, buf));
  uint64_t us;
  memcpy(&us, buf, sizeof us);
  EXPECT_EQ(1700000000000250ull, us);
  EXPECT_EQ(0xEE, buf[8]);
  EXPECT_EQ(1700000000, TevClock_Time());
  EXPECT_EQ(-ENOSYS, MtlSyscall(1, buf));
  std::string oldTz = getenv("TZ") != nullptr ? getenv("TZ") : "";
  setenv("TZ", "UTC", 1);
  tzset();
  auto logf = [](const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    PlatformLog_Vsyslog(format, ap);
    va_end(ap);
  };
  logf("dropped %s", "silently");  // no collector yet: nothing happens
  LogLines log(root_);
  logf("Exiting. rc:%d\n", 0);
  EXPECT_EQ("<14>Nov 14 22:13:20 tevd: Exiting. rc:0\n", log.Next());
  setenv("TZ", oldTz.c_str(), 1);  // "" reads as UTC as well
  tzset();
}

}  // namespace
