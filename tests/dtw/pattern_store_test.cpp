// Pattern stores and their files: id choice and list order, lookups, the
// float copy of a 16-bit pattern, the failure reports; records written out
// byte by byte, round trips of several records, hostile streams.
#include <gtest/gtest.h>

#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "frame/context.h"
#include "xkl_test_support.h"

namespace {

using xkltest::reports;
using Bytes = std::vector<uint8_t>;

class PatternStore : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKsPatternFreeAll();
    XKwPatternFreeAll();
    ReportingTest::TearDown();
  }
};

// Frames 0..n-1 of dim 2, frame i = (i, -i).
int addFloat(int n) {
  std::vector<std::vector<float>> rows(n);
  std::vector<float *> ptr(n);
  for (int i = 0; i < n; ++i) rows[i] = {1.0f * i, -1.0f * i}, ptr[i] = rows[i].data();
  return XKsPatternIni(ptr.data(), n, 2);
}

int addShort(int n, int scale) {
  std::vector<std::vector<short>> rows(n);
  std::vector<short *> ptr(n);
  for (int i = 0; i < n; ++i) rows[i] = {static_cast<short>(100 * i - 32768), static_cast<short>(7 - i)}, ptr[i] = rows[i].data();
  return XKwPatternIni(ptr.data(), n, 2, scale);
}

// The store's list walked from its head: ids in order, links and head flags
// checked on the way.
template <class Record>
std::vector<int> listIds(void *head) {
  std::vector<int> ids;
  const Record *prev = nullptr;
  for (auto *r = static_cast<const Record *>(head); r; prev = r, r = r->next) {
    EXPECT_EQ(r->previous, prev);
    EXPECT_EQ(r->isHead, prev == nullptr ? 1 : 0);
    ids.push_back(r->id);
  }
  return ids;
}

TEST_F(PatternStore, IdsFillTheSmallestGapAndAppendAtTheEnd) {
  auto &ctx = xk::context();
  for (int expect : {1, 2, 3}) EXPECT_EQ(addFloat(expect), expect);
  EXPECT_EQ(XKsPatternFree(2), 0);
  EXPECT_EQ(addFloat(4), 2);
  EXPECT_EQ(XKsPatternFree(1), 0);  // the head: its successor becomes head
  EXPECT_EQ(listIds<XKsPattern>(ctx.sPatterns.head), (std::vector<int>{3, 2}));
  for (int expect : {1, 4}) EXPECT_EQ(addFloat(1), expect);
  EXPECT_EQ(listIds<XKsPattern>(ctx.sPatterns.head), (std::vector<int>{3, 2, 1, 4}));
  EXPECT_EQ(XKsPatternsNumber(), 4);
  EXPECT_EQ(XKsPatternFree(4), 0);  // the tail
  EXPECT_EQ(listIds<XKsPattern>(ctx.sPatterns.head), (std::vector<int>{3, 2, 1}));
  // The 16-bit store is independent of the float one.
  EXPECT_EQ(addShort(2, 0), 1);
  EXPECT_EQ(XKsPatternFreeAll(), 0);
  EXPECT_EQ(XKsPatternsNumber(), 0);
  EXPECT_EQ(XKwPatternsNumber(), 1);
  EXPECT_TRUE(reports().empty());
}

// The float copy of a 16-bit pattern holds w * 2^scale; an unknown id gives
// 0 without a report.
TEST_F(PatternStore, FloatCopyAndUnknownIds) {
  float **data = nullptr;
  short **w = nullptr;
  int n = 0, dim = 0, s = 0;
  for (int scale : {3, -2}) {
    const int id = addShort(4, scale);
    EXPECT_EQ(XKwPatternGet(id, &w, &n, &dim, &s), id);
    const XKwPattern *rec = static_cast<const XKwPattern *>(xk::context().wPatterns.head);
    while (rec->id != id) rec = rec->next;
    for (int i = 0; i < 4; ++i)
      for (int k = 0; k < 2; ++k) EXPECT_EQ(rec->floatData[i][k], std::ldexp(static_cast<float>(w[i][k]), scale));
  }
  addFloat(3);
  EXPECT_EQ(XKsPatternGet(9, &data, &n, &dim), 0);
  EXPECT_TRUE(reports().empty());
}

// Results, and reports as "func|message|module|line|status", in call order.
TEST_F(PatternStore, FailuresReportTheirTexts) {
  std::vector<int> got, want;
  std::vector<std::string> expected, seen;
  const auto call = [&](int result, int expect, std::vector<std::string> texts) {
    got.push_back(result), want.push_back(expect);
    expected.insert(expected.end(), texts.begin(), texts.end());
  };
  float **data;
  short **w;
  int n, dim, scale;
  call(XKsPatternGet(1, &data, &n, &dim), 0, {"XKsPatternPtrGet|sPatterns have not been initialized.|XK_DTW|542|-2"});
  call(XKwPatternGet(1, &w, &n, &dim, &scale), 0,
       {"XKwPatternPtrGet|wPatterns have not been initialized.|XK_DTW|505|-2"});
  call(XKsPatternFree(1), -1,
       {"XKsPatternPtrGet|sPatterns have not been initialized.|XK_DTW|542|-2",
        "XKsPatternFree|sPattern NULL ptr is met in internal structure. The sPattern can not be free.|XK_DTW|343|-2"});
  call(XKsPatternFreeAll() + XKwPatternFreeAll(), 0, {});  // empty stores: silent
  addFloat(1);
  addShort(1, 0);
  call(XKsPatternFree(5), -1,
       {"XKsPatternFree|sPattern NULL ptr is met in internal structure. The sPattern can not be free.|XK_DTW|343|-2"});
  call(XKwPatternFree(5), -1,
       {"XKwPatternFree|wPattern NULL ptr is met in internal structure. The wPattern can not be free.|XK_DTW|322|-2"});
  // A table that cannot be allocated (negative size) fails the creation.
  call(XKsPatternIni(nullptr, -1, 2), -1,
       {"XKsAlloc2|The table can not be allocated|XK_ALLOC|60|-4", "XKsPatternIni|sPattern can not be allocated|XK_DTW|196|-4"});
  call(XKwPatternIni(nullptr, -1, 2, 0), -1,
       {"XKwAlloc2|The table can not be allocated|XK_ALLOC|108|-4", "XKwPatternIni|wPattern can not be allocated|XK_DTW|135|-4"});
  // A store whose count disagrees with its list cannot unlink.
  auto &ctx = xk::context();
  ctx.sPatterns.count = 0;
  call(XKsPatternFreeAll(), -1,
       {"XKsPatternPtrFree|Error in internal structure. sPatterns have not be allocated.|XK_DTW|614|-2",
        "XKsPatternFreeAll|Error in internal structure. sPattern can not be free|XK_DTW|404|-2"});
  ctx.sPatterns.count = 1;
  for (auto &r : reports())
    seen.push_back(r.func + "|" + r.context + "|" + r.file + "|" + std::to_string(r.line) + "|" +
                   std::to_string(r.status));
  EXPECT_EQ(got, want);
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(XKsPatternsNumber() + XKwPatternsNumber(), 2);
}

void le32(Bytes &b, uint32_t v) {
  for (int s = 0; s < 32; s += 8) b.push_back(static_cast<uint8_t>(v >> s));
}

// Float record: id 7, isHead 1, dim 3, 2 frames {1, -2.5, 3e-3}, {0, 1e30, -0}.
Bytes floatRecord() {
  Bytes b = {'D', 'T', 'W', ' '};
  for (uint32_t v : {7u, 1u, 3u, 2u}) le32(b, v);
  for (float f : {1.0f, -2.5f, 3e-3f, 0.0f, 1e30f, -0.0f}) le32(b, std::bit_cast<uint32_t>(f));
  return b;
}

// 16-bit record: id 4, isHead 1, dim 2, 2 frames, scale -3; the float copy,
// then the values {8, -32768}, {32767, -1}.
Bytes shortRecord() {
  Bytes b = {'D', 'T', 'W', ' '};
  for (uint32_t v : {4u, 1u, 2u, 2u, static_cast<uint32_t>(-3)}) le32(b, v);
  for (float f : {1.0f, -4096.0f, 4095.875f, -0.125f}) le32(b, std::bit_cast<uint32_t>(f));
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

// Hand-built records read into the store, a few values checked there (a
// reader and writer wrong in the same way would still write the bytes back),
// and written back byte for byte (which also keeps -0 and every other value).
TEST_F(PatternStore, HandBuiltRecordsReadAndWriteBack) {
  EXPECT_EQ(readFrom(floatRecord(), XKsReadDTWPattern), 7);
  EXPECT_EQ(readFrom(shortRecord(), XKwReadDTWPattern), 4);
  float **data;
  short **w;
  int n, dim, scale;
  ASSERT_EQ(XKsPatternGet(7, &data, &n, &dim), 7);
  EXPECT_EQ(n * 10 + dim, 23);
  EXPECT_EQ(data[1][1], 1e30f);
  ASSERT_EQ(XKwPatternGet(4, &w, &n, &dim, &scale), 4);
  EXPECT_EQ(scale, -3);
  EXPECT_EQ(w[0][1], -32768);
  FILE *fs = std::tmpfile(), *fw = std::tmpfile();
  XKsWriteDTWPattern(fs, 7);
  XKwWriteDTWPattern(fw, 4);
  EXPECT_EQ(contents(fs), floatRecord());
  EXPECT_EQ(contents(fw), shortRecord());
  EXPECT_TRUE(reports().empty());
}

// Patterns made in the store, written two to a stream and read back: ids
// kept (even one already in use), appended in the order read, isHead of
// the written record as it was in the store.
TEST_F(PatternStore, SeveralRecordsRoundTrip) {
  ASSERT_EQ(addFloat(2), 1);
  ASSERT_EQ(addFloat(1), 2);
  ASSERT_EQ(addShort(2, 4), 1);
  ASSERT_EQ(addShort(1, -1), 2);
  FILE *fs = std::tmpfile(), *fw = std::tmpfile();
  for (int id : {2, 1}) XKsWriteDTWPattern(fs, id), XKwWriteDTWPattern(fw, id);
  const Bytes sBytes = contents(fs), wBytes = contents(fw);
  EXPECT_EQ(sBytes[8], 0);       // pattern 2 was not the head
  EXPECT_EQ(sBytes[28 + 8], 1);  // pattern 1, after 20 + 1 x 2 x 4 bytes, was
  fs = streamOf(sBytes);
  fw = streamOf(wBytes);
  for (int id : {2, 1, -1}) EXPECT_EQ(XKsReadDTWPattern(fs), id);  // -1: end of stream
  for (int id : {2, 1}) EXPECT_EQ(XKwReadDTWPattern(fw), id);
  std::fclose(fs);
  std::fclose(fw);
  // The copies sit after the originals and keep frames and scale.
  auto &ctx = xk::context();
  EXPECT_EQ(listIds<XKsPattern>(ctx.sPatterns.head), (std::vector<int>{1, 2, 2, 1}));
  EXPECT_EQ(listIds<XKwPattern>(ctx.wPatterns.head), (std::vector<int>{1, 2, 2, 1}));
  EXPECT_EQ(static_cast<const XKsPattern *>(ctx.sPatterns.head)->next->next->next->data[1][1], -1.0f);
  const XKwPattern *wcopy = static_cast<const XKwPattern *>(ctx.wPatterns.head)->next->next->next;
  EXPECT_EQ(wcopy->data[1][0], 100 - 32768);
  EXPECT_EQ(wcopy->scale, 4);
}

// Every proper prefix of a record, a wrong magic, and corrupted counts give
// -1 and leave the store as it was.
TEST_F(PatternStore, HostileStreamsFailWithoutChangingTheStore) {
  struct Flavour { Bytes record; int (*read)(FILE *); int (*count)(); };
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
  EXPECT_TRUE(reports().empty());
}

}  // namespace
