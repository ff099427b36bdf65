// Pattern files against records written out byte by byte, round trips of
// several records, and hostile streams (truncated, corrupted counts).
#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "frame/context.h"
#include "xkl_test_support.h"

namespace {

using Bytes = std::vector<uint8_t>;

void le32(Bytes &b, uint32_t v) {
  for (int s = 0; s < 32; s += 8) b.push_back(static_cast<uint8_t>(v >> s));
}
void le32f(Bytes &b, float f) {
  uint32_t v;
  std::memcpy(&v, &f, 4);
  le32(b, v);
}

// Float record: id 7, isHead 1, dim 3, 2 frames {1, -2.5, 3e-3}, {0, 1e30, -0}.
Bytes floatRecord() {
  Bytes b = {'D', 'T', 'W', ' '};
  for (uint32_t v : {7u, 1u, 3u, 2u}) le32(b, v);
  for (float f : {1.0f, -2.5f, 3e-3f, 0.0f, 1e30f, -0.0f}) le32f(b, f);
  return b;
}

// 16-bit record: id 4, isHead 1, dim 2, 2 frames, scale -3; the float copy,
// then the values {8, -32768}, {32767, -1}.
Bytes shortRecord() {
  Bytes b = {'D', 'T', 'W', ' '};
  for (uint32_t v : {4u, 1u, 2u, 2u, static_cast<uint32_t>(-3)}) le32(b, v);
  for (float f : {1.0f, -4096.0f, 4095.875f, -0.125f}) le32f(b, f);
  for (uint8_t x : {0x08, 0x00, 0x00, 0x80, 0xFF, 0x7F, 0xFF, 0xFF}) b.push_back(x);
  return b;
}

FILE *streamOf(const Bytes &b) {
  FILE *f = std::tmpfile();
  if (!b.empty()) std::fwrite(b.data(), 1, b.size(), f);
  std::rewind(f);
  return f;
}

// Reads one record from a stream holding the bytes.
int readFrom(const Bytes &b, int (*read)(FILE *)) {
  FILE *f = streamOf(b);
  const int id = read(f);
  std::fclose(f);
  return id;
}

Bytes contents(FILE *f) {
  std::fflush(f);
  std::rewind(f);
  Bytes b;
  int c;
  while ((c = std::fgetc(f)) != EOF) b.push_back(static_cast<uint8_t>(c));
  std::fclose(f);
  return b;
}

class PatternFile : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKsPatternFreeAll();
    XKwPatternFreeAll();
    ReportingTest::TearDown();
  }
};

TEST_F(PatternFile, HandBuiltRecordsReadAndWriteBack) {
  EXPECT_EQ(readFrom(floatRecord(), XKsReadDTWPattern), 7);
  float **data;
  int n, dim;
  ASSERT_EQ(XKsPatternGet(7, &data, &n, &dim), 7);
  EXPECT_EQ(n * 10 + dim, 23);
  EXPECT_EQ(data[0][1], -2.5f);
  EXPECT_EQ(data[1][1], 1e30f);
  EXPECT_TRUE(std::signbit(data[1][2]));
  FILE *f = std::tmpfile();
  XKsWriteDTWPattern(f, 7);
  EXPECT_EQ(contents(f), floatRecord());

  EXPECT_EQ(readFrom(shortRecord(), XKwReadDTWPattern), 4);
  short **w;
  int scale;
  ASSERT_EQ(XKwPatternGet(4, &w, &n, &dim, &scale), 4);
  EXPECT_EQ(scale, -3);
  EXPECT_EQ(w[0][1], -32768);
  EXPECT_EQ(w[1][0], 32767);
  EXPECT_EQ(w[1][1], -1);
  f = std::tmpfile();
  XKwWriteDTWPattern(f, 4);
  EXPECT_EQ(contents(f), shortRecord());
  EXPECT_TRUE(xkltest::reports().empty());
}

// Patterns made in the store, written two to a stream and read back: ids
// kept (even one already in use), appended in the order read, isHead of
// the written record as it was in the store.
TEST_F(PatternFile, SeveralRecordsRoundTrip) {
  float a[2][3] = {{1, 2, 3}, {4, 5, 6}}, b[1][3] = {{-1, 0.5f, 9}};
  float *pa[2] = {a[0], a[1]}, *pb[1] = {b[0]};
  short wa[2][2] = {{1, -2}, {300, -400}};
  short *pwa[2] = {wa[0], wa[1]};
  ASSERT_EQ(XKsPatternIni(pa, 2, 3), 1);
  ASSERT_EQ(XKsPatternIni(pb, 1, 3), 2);
  ASSERT_EQ(XKwPatternIni(pwa, 2, 2, 4), 1);
  ASSERT_EQ(XKwPatternIni(pwa, 1, 2, -1), 2);
  FILE *fs = std::tmpfile(), *fw = std::tmpfile();
  for (int id : {2, 1}) XKsWriteDTWPattern(fs, id), XKwWriteDTWPattern(fw, id);
  const Bytes sBytes = contents(fs), wBytes = contents(fw);
  EXPECT_EQ(sBytes[8], 0);   // pattern 2 was not the head
  EXPECT_EQ(sBytes[32 + 8], 1);  // pattern 1 was
  fs = streamOf(sBytes);
  fw = streamOf(wBytes);
  EXPECT_EQ(XKsReadDTWPattern(fs), 2);
  EXPECT_EQ(XKsReadDTWPattern(fs), 1);
  EXPECT_EQ(XKsReadDTWPattern(fs), -1);  // end of stream
  EXPECT_EQ(XKwReadDTWPattern(fw), 2);
  EXPECT_EQ(XKwReadDTWPattern(fw), 1);
  std::fclose(fs);
  std::fclose(fw);
  EXPECT_EQ(XKsPatternsNumber(), 4);
  EXPECT_EQ(XKwPatternsNumber(), 4);
  // The store now holds ids 1, 2, 2, 1: the copies sit after the originals.
  const XKsPattern *r = static_cast<const XKsPattern *>(xk::context().sPatterns.head);
  std::vector<int> ids;
  for (; r; r = r->next) ids.push_back(r->id);
  EXPECT_EQ(ids, (std::vector<int>{1, 2, 2, 1}));
  const XKsPattern *copy = static_cast<const XKsPattern *>(xk::context().sPatterns.head)->next->next->next;
  EXPECT_EQ(copy->data[1][2], 6.0f);
  const XKwPattern *wcopy = static_cast<const XKwPattern *>(xk::context().wPatterns.head)->next->next->next;
  EXPECT_EQ(wcopy->data[1][0], 300);
  EXPECT_EQ(wcopy->floatData[1][1], -6400.0f);
  EXPECT_EQ(wcopy->scale, 4);
}

// Every proper prefix of a record, a wrong magic, and corrupted counts give
// -1 and leave the store as it was.
TEST_F(PatternFile, HostileStreamsFailWithoutChangingTheStore) {
  struct Flavour {
    Bytes record;
    int (*read)(FILE *);
    int (*count)();
  };
  for (const Flavour &fl : {Flavour{floatRecord(), XKsReadDTWPattern, XKsPatternsNumber},
                            Flavour{shortRecord(), XKwReadDTWPattern, XKwPatternsNumber}}) {
    std::vector<Bytes> bad;
    for (size_t len = 0; len < fl.record.size(); ++len) bad.emplace_back(fl.record.begin(), fl.record.begin() + len);
    // Edits of (offset, word): the magic, dim, nFrames, and dim 0 with more
    // frames than any pattern has.
    const std::vector<std::vector<std::pair<size_t, uint32_t>>> edits = {
        {{0, 0x20575445}},  // "ETW "
        {{12, 0xFFFFFFFFu}}, {{12, 0x80000000u}}, {{12, 0x7FFFFFFFu}}, {{12, 4u}},
        {{16, 0xFFFFFFFFu}}, {{16, 0x80000000u}}, {{16, 0x7FFFFFFFu}}, {{16, 0x10000000u}},
        {{12, 0}, {16, 0x7FFFFFFF}}};
    for (const auto &e : edits) {
      Bytes b = fl.record;
      for (auto [offset, value] : e)
        for (int s = 0; s < 4; ++s) b[offset + s] = static_cast<uint8_t>(value >> (8 * s));
      bad.push_back(b);
    }
    const int before = fl.count();
    for (const Bytes &b : bad) EXPECT_EQ(readFrom(b, fl.read), -1) << b.size();
    EXPECT_EQ(fl.count(), before);
  }
  EXPECT_TRUE(xkltest::reports().empty());
}

}  // namespace
