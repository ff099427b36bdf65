// Two-dimensional tables, the version record and the file helpers.
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <tuple>

#include "xkl_test_support.h"

namespace {

using xkltest::reports;

class TablesTest : public xkltest::ReportingTest {};

uintptr_t addr(const void *p) { return reinterpret_cast<uintptr_t>(p); }

// Checks a table's rows are `padded` elements apart and writes every padded
// element (the sanitizer build catches a row that runs past the block).
template <class T>
void checkLayout(T **table, int rows, int padded) {
  ASSERT_NE(table, nullptr);
  if (rows == 0) return;
  const uintptr_t pointersEnd = addr(table + rows);
  EXPECT_EQ(addr(table[0]) % 32, 0u);
  EXPECT_GE(addr(table[0]), pointersEnd);
  EXPECT_LT(addr(table[0]), pointersEnd + 32);
  for (int i = 0; i < rows; ++i) {
    EXPECT_EQ(addr(table[i]) - addr(table[0]), uintptr_t(i) * padded * sizeof(T)) << i;
    for (int j = 0; j < padded; ++j) table[i][j] = static_cast<T>(i + j);
  }
}

// Rows padded to 8 floats or 16 shorts; the empty and odd shapes too.
TEST_F(TablesTest, ManyShapesFitTheirBlock) {
  for (int rows : {0, 1, 2, 3, 7, 31, 64, 129})
    for (int cols : {0, 1, 7, 8, 9, 15, 16, 17, 33, 100}) {
      float **f = XKsAlloc2(rows, cols);
      short **w = XKwAlloc2(rows, cols);
      checkLayout(f, rows, (cols + 7) / 8 * 8);
      checkLayout(w, rows, (cols + 15) / 16 * 16);
      XKFree2(f), XKFree2(w);
    }
  EXPECT_TRUE(reports().empty());
}

TEST_F(TablesTest, FailureIsReportedAsNoMemory) {
  const struct { bool isFloat; int rows, cols; } cases[] = {
      {true, INT_MAX, INT_MAX}, {true, -1, 3}, {true, 2, -100}, {false, INT_MAX, INT_MAX}, {false, -7, 1}};
  for (const auto &c : cases) {
    reports().clear();
    EXPECT_EQ(c.isFloat ? (void *)XKsAlloc2(c.rows, c.cols) : (void *)XKwAlloc2(c.rows, c.cols), nullptr);
    ASSERT_EQ(reports().size(), 1u);
    const auto &r = reports()[0];
    EXPECT_EQ(std::tie(r.status, r.func, r.context, r.file, r.line),
              std::make_tuple(int(XK_StsNoMem), std::string(c.isFloat ? "XKsAlloc2" : "XKwAlloc2"),
                              std::string("The table can not be allocated"), std::string("XK_ALLOC"),
                              c.isFloat ? 60 : 108));
  }
  EXPECT_EQ(XKGetStatus(), XK_StsNoMem);
}

TEST(Version, ConstantRecordAtOneAddress) {
  const XKLibVersion *v = XKGetLibVersion();
  ASSERT_NE(v, nullptr);
  EXPECT_EQ(v, XKGetLibVersion());
  EXPECT_EQ(std::tie(v->major, v->minor, v->build), std::make_tuple(4, 0, 18));
  EXPECT_STREQ(v->name, "xklm5.dll");
  EXPECT_STREQ(v->version, "Version 4.1 Beta Release");
  EXPECT_STREQ(v->internalVersion, "[4.00.18, 01/21/99]");
  EXPECT_STREQ(v->buildDate, "Jan 26 1999");
  EXPECT_STREQ(v->kind, "DLL");
}

TEST(Files, OpenWriteReadClose) {
  const std::string path = ::testing::TempDir() + "xkl_files_test.bin";
  FILE *out = XKOpenFile(path.c_str(), "wb");
  ASSERT_NE(out, nullptr);
  const unsigned char bytes[4] = {0x48, 0x4d, 0x4d, 0x20};
  ASSERT_EQ(std::fwrite(bytes, 1, 4, out), 4u);
  EXPECT_EQ(XKCloseFile(out), 0);
  FILE *in = XKOpenFile(path.c_str(), "rb");
  ASSERT_NE(in, nullptr);
  unsigned char back[8] = {};
  EXPECT_EQ(std::fread(back, 1, 8, in), 4u);
  EXPECT_EQ(std::memcmp(back, bytes, 4), 0);
  EXPECT_EQ(XKCloseFile(in), 0);
  std::remove(path.c_str());
  EXPECT_EQ(XKOpenFile((path + ".missing/x").c_str(), "rb"), nullptr);
  EXPECT_EQ(XKOpenFile(nullptr, "rb"), nullptr);
  EXPECT_NE(XKCloseFile(nullptr), 0);
}

}  // namespace
