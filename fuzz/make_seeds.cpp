// Writes the seed corpora of the fuzz targets (fuzz/corpus/<target>/) with
// the real encoders, so every target starts from well-formed inputs plus a
// few near misses. Run by fuzz/run.sh --seeds; the output is committed.
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "MsgFmt.h"
#include "TevRecord.h"

namespace {
using V = MsgFmt_Value;
using Bytes = std::vector<uint8_t>;

void Write(const std::string &dir, const std::string &name, const Bytes &b) {
  mkdir(dir.c_str(), 0755);
  std::string path = dir + "/" + name;
  FILE *f = fopen(path.c_str(), "wb");
  if (f == nullptr) {
    perror(path.c_str());
    return;
  }
  if (!b.empty()) fwrite(b.data(), 1, b.size(), f);
  fclose(f);
}

Bytes Text(const std::string &s) { return Bytes(s.begin(), s.end()); }
Bytes Cat(uint8_t first, const Bytes &rest) {
  Bytes b{first};
  b.insert(b.end(), rest.begin(), rest.end());
  return b;
}

Bytes Qprob(const std::string &id, const std::vector<V> &args) {
  Bytes block = MsgFmt_EncodeBlock(args);
  Bytes m(68, 0);
  uint64_t ts = 1700000000000000ull;
  memcpy(m.data(), &ts, 8);
  const char *host = "6a1f0c2e-0000-4000-8000-00000000beef";
  memcpy(m.data() + 16, host, strlen(host));
  m.insert(m.end(), id.begin(), id.end());
  m.push_back(0);
  m.insert(m.end(), block.begin(), block.end());
  m.insert(m.end(), 4, 0);
  uint32_t total = static_cast<uint32_t>(m.size());
  uint32_t count = static_cast<uint32_t>(args.size());
  uint32_t idLen = static_cast<uint32_t>(id.size() + 1);
  memcpy(m.data() + 56, &total, 4);
  memcpy(m.data() + 60, &count, 4);
  memcpy(m.data() + 64, &idLen, 4);
  return m;
}

void AddPacket(Bytes *b, const Bytes &p) {
  b->push_back(static_cast<uint8_t>(p.size() & 0xFF));
  b->push_back(static_cast<uint8_t>(p.size() >> 8));
  b->insert(b->end(), p.begin(), p.end());
}
}  // namespace

int main(int argc, char **argv) {
  std::string root = argc > 1 ? argv[1] : "fuzz/corpus";
  mkdir(root.c_str(), 0755);
  const std::vector<std::vector<V>> argSets = {
      {},
      {V::Str("eth0"), V::I32(-7)},
      {V::U32(4000000000u), V::I64(-5), V::U64(~0ull), V::Dbl(1.5)},
      {V::NullStr(), V::Str(""), V::Str("sda")},
  };
  std::vector<Bytes> records;
  for (size_t i = 0; i < argSets.size(); ++i) {
    records.push_back(TevRecord_Encode("tev.net.hwnic.linkstate.down", "link %s is down %d",
                                       1000 + i, argSets[i]));
  }

  std::string d = root + "/record";
  for (size_t i = 0; i < records.size(); ++i) Write(d, "good" + std::to_string(i), records[i]);
  Bytes cut(records[1].begin(), records[1].begin() + records[1].size() - 3);
  Write(d, "truncated", cut);

  d = root + "/msgfmt";
  for (size_t i = 0; i < argSets.size(); ++i) {
    Write(d, "block" + std::to_string(i),
          Cat(static_cast<uint8_t>(argSets[i].size()), MsgFmt_EncodeBlock(argSets[i])));
  }

  d = root + "/qprob";
  Write(d, "problem", Qprob("kos.problem.net.hwnic.linkstate.down", argSets[1]));
  Write(d, "clear", Qprob("kos.clear.x.y", {}));
  Write(d, "audit", Qprob("kos.audit.scsi.path", argSets[3]));

  d = root + "/getargs";
  const char *formats[] = {"%p %d", "%u %lld %llu", "%hhd %hd %ld", "%p %p %p", "%d%%", "%lu %x"};
  for (size_t i = 0; i < sizeof formats / sizeof formats[0]; ++i) {
    Write(d, "fmt" + std::to_string(i), Cat(static_cast<uint8_t>(i), Text(formats[i])));
  }

  d = root + "/tevdutil";
  const char *pformats[] = {"link %s is down %d", "%-10s %5.2d %llu", "%hhu %hd %ld %lx",
                            "100%% of %s",        "%X %c %i %o",      "%"};
  for (size_t i = 0; i < sizeof pformats / sizeof pformats[0]; ++i) {
    Write(d, "fmt" + std::to_string(i),
          Cat(static_cast<uint8_t>(i == 0 ? 255 : 8 + i), Text(pformats[i])));
  }

  d = root + "/readfd";
  Bytes all{5};
  for (const Bytes &r : records) AddPacket(&all, r);
  Write(d, "four", all);
  Bytes mixed{0x84};
  AddPacket(&mixed, records[0]);
  AddPacket(&mixed, Text("garbage"));
  AddPacket(&mixed, cut);
  AddPacket(&mixed, records[2]);
  Write(d, "mixed-then-close", mixed);
  Bytes small{3};
  AddPacket(&small, records[2]);
  Write(d, "too-small", small);
  // The same inputs on the batched datagram path of the asynchronous contexts.
  all[0] = 0x45;
  Write(d, "dgram-four", all);
  mixed[0] = 0x44;
  Write(d, "dgram-mixed", mixed);
  small[0] = 0x43;
  Write(d, "dgram-too-small", small);
  return 0;
}
