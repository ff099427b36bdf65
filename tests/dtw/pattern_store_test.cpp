// Pattern stores: id choice and list order, lookups, the float copy of a
// 16-bit pattern, and the failure reports.
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <vector>

#include "frame/context.h"
#include "xkl_test_support.h"

namespace {

using xkltest::reports;

class PatternStore : public xkltest::ReportingTest {
 protected:
  void TearDown() override {
    XKsPatternFreeAll();
    XKwPatternFreeAll();
    ReportingTest::TearDown();
  }
};

// Frames 0..n-1 of dim 2, frame i = (base + i, -i).
int addFloat(int n, float base = 0) {
  std::vector<std::vector<float>> rows(n);
  std::vector<float *> ptr(n);
  for (int i = 0; i < n; ++i) rows[i] = {base + i, -1.0f * i}, ptr[i] = rows[i].data();
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
  EXPECT_EQ(addFloat(1), 1);
  EXPECT_EQ(addFloat(1), 4);
  EXPECT_EQ(listIds<XKsPattern>(ctx.sPatterns.head), (std::vector<int>{3, 2, 1, 4}));
  EXPECT_EQ(XKsPatternsNumber(), 4);
  EXPECT_EQ(XKsPatternFree(4), 0);  // the tail
  EXPECT_EQ(listIds<XKsPattern>(ctx.sPatterns.head), (std::vector<int>{3, 2, 1}));
  // The 16-bit store is independent of the float one.
  EXPECT_EQ(addShort(2, 0), 1);
  EXPECT_EQ(XKwPatternsNumber(), 1);
  EXPECT_EQ(XKsPatternFreeAll(), 0);
  EXPECT_EQ(XKsPatternsNumber(), 0);
  EXPECT_EQ(ctx.sPatterns.head, nullptr);
  EXPECT_EQ(XKwPatternsNumber(), 1);
  EXPECT_TRUE(reports().empty());
}

// The float copy of a 16-bit pattern holds w * 2^scale; an unknown id gives
// 0 without a report.
TEST_F(PatternStore, FloatCopyAndUnknownIds) {
  for (int scale : {3, -2}) {
    const int id = addShort(4, scale);
    short **w = nullptr;
    int n = 0, dim = 0, s = 0;
    EXPECT_EQ(XKwPatternGet(id, &w, &n, &dim, &s), id);
    EXPECT_EQ(s, scale);
    const XKwPattern *rec = static_cast<const XKwPattern *>(xk::context().wPatterns.head);
    while (rec->id != id) rec = rec->next;
    for (int i = 0; i < 4; ++i)
      for (int k = 0; k < 2; ++k) EXPECT_EQ(rec->floatData[i][k], std::ldexp(static_cast<float>(w[i][k]), scale));
  }
  float **data = nullptr;
  int n = 0, dim = 0;
  addFloat(3);
  EXPECT_EQ(XKsPatternGet(9, &data, &n, &dim), 0);
  EXPECT_TRUE(reports().empty());
}

TEST_F(PatternStore, FailuresReportTheirTexts) {
  struct Case {
    const char *what;
    int result, expectResult;
    std::vector<std::string> expectReports;  // "func|message|module|line|status"
  };
  const auto seen = [] {
    std::vector<std::string> out;
    for (auto &r : reports())
      out.push_back(r.func + "|" + r.context + "|" + r.file + "|" + std::to_string(r.line) + "|" +
                    std::to_string(r.status));
    reports().clear();
    return out;
  };
  float **data;
  short **w;
  int n, dim, scale;
  std::vector<Case> cases;
  cases.push_back({"get on empty float store", XKsPatternGet(1, &data, &n, &dim), 0,
                   {"XKsPatternPtrGet|sPatterns have not been initialized.|XK_DTW|542|-2"}});
  cases.push_back({"get on empty 16-bit store", XKwPatternGet(1, &w, &n, &dim, &scale), 0,
                   {"XKwPatternPtrGet|wPatterns have not been initialized.|XK_DTW|505|-2"}});
  cases.push_back({"free on empty float store", XKsPatternFree(1), -1,
                   {"XKsPatternPtrGet|sPatterns have not been initialized.|XK_DTW|542|-2",
                    "XKsPatternFree|sPattern NULL ptr is met in internal structure. The sPattern can not be free.|XK_DTW|343|-2"}});
  cases.push_back({"free all of empty stores", XKsPatternFreeAll() + XKwPatternFreeAll(), 0, {}});
  addFloat(1);
  addShort(1, 0);
  cases.push_back({"free unknown float id", XKsPatternFree(5), -1,
                   {"XKsPatternFree|sPattern NULL ptr is met in internal structure. The sPattern can not be free.|XK_DTW|343|-2"}});
  cases.push_back({"free unknown 16-bit id", XKwPatternFree(5), -1,
                   {"XKwPatternFree|wPattern NULL ptr is met in internal structure. The wPattern can not be free.|XK_DTW|322|-2"}});
  // A table that cannot be allocated (negative size) fails the creation.
  cases.push_back({"float table", XKsPatternIni(nullptr, -1, 2), -1,
                   {"XKsAlloc2|The table can not be allocated|XK_ALLOC|60|-4", "XKsPatternIni|sPattern can not be allocated|XK_DTW|196|-4"}});
  cases.push_back({"16-bit table", XKwPatternIni(nullptr, -1, 2, 0), -1,
                   {"XKwAlloc2|The table can not be allocated|XK_ALLOC|108|-4", "XKwPatternIni|wPattern can not be allocated|XK_DTW|135|-4"}});
  // A store whose count disagrees with its list cannot unlink.
  auto &ctx = xk::context();
  ctx.sPatterns.count = 0;
  cases.push_back({"free all with a broken count", XKsPatternFreeAll(), -1,
                   {"XKsPatternPtrFree|Error in internal structure. sPatterns have not be allocated.|XK_DTW|614|-2",
                    "XKsPatternFreeAll|Error in internal structure. sPattern can not be free|XK_DTW|404|-2"}});
  ctx.sPatterns.count = 1;
  // Reports were recorded in call order; compare them in one go.
  std::vector<std::string> expectAll;
  for (auto &c : cases) {
    EXPECT_EQ(c.result, c.expectResult) << c.what;
    expectAll.insert(expectAll.end(), c.expectReports.begin(), c.expectReports.end());
  }
  EXPECT_EQ(seen(), expectAll);
  EXPECT_EQ(XKsPatternsNumber() + XKwPatternsNumber(), 2);
}

}  // namespace
