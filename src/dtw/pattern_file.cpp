// Pattern files: one record per pattern in the 32-bit little-endian layout
// (see xk_dtw.h), written and read field by field whatever the host.
//
// Readers trust nothing in a record: negative counts, sizes that overflow
// and sizes beyond what the stream still holds all give -1, with the store
// unchanged and nothing left allocated. Values are read in growing chunks,
// so a header that claims more than the stream holds costs at most about
// twice what was actually there.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "dtw/patterns.h"
#include "frame/report.h"
#include "xkl/xk_frame.h"

namespace xk::dtw {
namespace {

constexpr unsigned char kMagic[4] = {0x44, 0x54, 0x57, 0x20};  // "DTW "
// A record with dim 0 holds no values, so the stream cannot bound its frame
// count; no real pattern has more frames than this.
constexpr int kMaxFramesWithoutValues = 65535;
constexpr size_t kFirstChunk = size_t{1} << 16;

void putU32(unsigned char *p, uint32_t v) {
  p[0] = static_cast<unsigned char>(v);
  p[1] = static_cast<unsigned char>(v >> 8);
  p[2] = static_cast<unsigned char>(v >> 16);
  p[3] = static_cast<unsigned char>(v >> 24);
}

uint32_t getU32(const unsigned char *p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 | static_cast<uint32_t>(p[2]) << 16 |
         static_cast<uint32_t>(p[3]) << 24;
}

int32_t getI32(const unsigned char *p) { return static_cast<int32_t>(getU32(p)); }

void putFloat(unsigned char *p, float f) {
  uint32_t v;
  std::memcpy(&v, &f, 4);
  putU32(p, v);
}

float getFloat(const unsigned char *p) {
  const uint32_t v = getU32(p);
  float f;
  std::memcpy(&f, &v, 4);
  return f;
}

// Bytes of nValues elements of `size` bytes, or 0 with ok false on overflow.
size_t valueBytes(int64_t nValues, size_t size, bool &ok) {
  ok = nValues >= 0 && static_cast<uint64_t>(nValues) <= (uint64_t{1} << 60) / size;
  return ok ? static_cast<size_t>(nValues) * size : 0;
}

// Writes the rows of a table, serialized by `put`, in one call.
template <class T, class Put>
bool writeTable(FILE *stream, T *const *rows, int nFrames, int dim, size_t size, Put put) {
  bool ok;
  const size_t bytes = valueBytes(static_cast<int64_t>(nFrames) * dim, size, ok);
  if (!ok) return false;
  if (bytes == 0) return true;
  auto *buf = static_cast<unsigned char *>(std::calloc(bytes, 1));
  if (buf == nullptr) return false;
  unsigned char *p = buf;
  for (int i = 0; i < nFrames; ++i)
    for (int k = 0; k < dim; ++k, p += size) put(p, rows[i][k]);
  const bool written = std::fwrite(buf, 1, bytes, stream) == bytes;
  std::free(buf);
  return written;
}

// Reads exactly n bytes into a new block (null on a short read or without
// memory). The block grows only as data arrives.
unsigned char *readBytes(FILE *stream, size_t n) {
  size_t cap = n < kFirstChunk ? n : kFirstChunk;
  auto *buf = static_cast<unsigned char *>(std::malloc(cap > 0 ? cap : 1));
  size_t got = 0;
  while (buf != nullptr && got < n) {
    if (got == cap) {
      cap = n - cap < cap ? n : 2 * cap;
      auto *grown = static_cast<unsigned char *>(std::realloc(buf, cap));
      if (grown == nullptr) break;
      buf = grown;
    }
    const size_t want = cap - got;
    const size_t r = std::fread(buf + got, 1, want, stream);
    got += r;
    if (r < want) break;
  }
  if (got < n) {
    std::free(buf);
    return nullptr;
  }
  return buf;
}

// Reads and checks the magic and the header words after it. nWords is 4
// (id, isHead, dim, nFrames) or 5 (and scale).
bool readHeader(FILE *stream, int32_t *words, int nWords) {
  unsigned char b[20];
  if (std::fread(b, 1, 4, stream) < 4 || std::memcmp(b, kMagic, 4) != 0) return false;
  const size_t n = static_cast<size_t>(nWords) * 4;
  if (std::fread(b, 1, n, stream) < n) return false;
  for (int w = 0; w < nWords; ++w) words[w] = getI32(b + 4 * w);
  const int32_t dim = words[2], nFrames = words[3];
  if (dim < 0 || nFrames < 0) return false;
  if (dim == 0 && nFrames > kMaxFramesWithoutValues) return false;
  return true;
}

template <class Record>
bool writeHeader(FILE *stream, const Record *rec, bool withScale, int scale) {
  unsigned char b[20];
  putU32(b, static_cast<uint32_t>(rec->id));
  putU32(b + 4, static_cast<uint32_t>(rec->isHead));
  putU32(b + 8, static_cast<uint32_t>(rec->dim));
  putU32(b + 12, static_cast<uint32_t>(rec->nFrames));
  if (withScale) putU32(b + 16, static_cast<uint32_t>(scale));
  const size_t n = withScale ? 20 : 16;
  return std::fwrite(b, 1, n, stream) == n;
}

}  // namespace
}  // namespace xk::dtw

using namespace xk::dtw;

extern "C" {

void XKsWriteDTWPattern(FILE *stream, int id) {
  if (std::fwrite(kMagic, 1, 4, stream) < 4) return;
  const XKsPattern *rec = patternPtrGet<FloatStore>(id);
  if (rec == nullptr || !writeHeader(stream, rec, false, 0)) return;
  writeTable(stream, rec->data, rec->nFrames, rec->dim, 4, putFloat);
}

void XKwWriteDTWPattern(FILE *stream, int id) {
  if (std::fwrite(kMagic, 1, 4, stream) < 4) return;
  const XKwPattern *rec = patternPtrGet<ShortStore>(id);
  if (rec == nullptr || !writeHeader(stream, rec, true, rec->scale)) return;
  if (!writeTable(stream, rec->floatData, rec->nFrames, rec->dim, 4, putFloat)) return;
  writeTable(stream, rec->data, rec->nFrames, rec->dim, 2, [](unsigned char *p, short v) {
    const auto u = static_cast<uint16_t>(v);
    p[0] = static_cast<unsigned char>(u);
    p[1] = static_cast<unsigned char>(u >> 8);
  });
}

int XKsReadDTWPattern(FILE *stream) {
  int32_t h[4];
  if (!readHeader(stream, h, 4)) return -1;
  const int dim = h[2], nFrames = h[3];
  bool ok;
  const size_t bytes = valueBytes(static_cast<int64_t>(nFrames) * dim, 4, ok);
  if (!ok) return -1;
  unsigned char *values = readBytes(stream, bytes);
  if (values == nullptr) return -1;
  auto *rec = static_cast<XKsPattern *>(std::calloc(1, sizeof(XKsPattern)));
  float **data = rec ? XKsAlloc2(nFrames, dim) : nullptr;
  if (data == nullptr) {
    std::free(rec);
    std::free(values);
    return -1;
  }
  const unsigned char *p = values;
  for (int i = 0; i < nFrames; ++i)
    for (int k = 0; k < dim; ++k, p += 4) data[i][k] = getFloat(p);
  std::free(values);
  rec->id = h[0];  // the file's id as it stands, even one already in use
  rec->data = data;
  rec->dim = dim;
  rec->nFrames = nFrames;
  appendRecord<FloatStore>(rec);
  return rec->id;
}

int XKwReadDTWPattern(FILE *stream) {
  int32_t h[5];
  if (!readHeader(stream, h, 5)) return -1;
  const int dim = h[2], nFrames = h[3];
  bool ok;
  const size_t floatBytes = valueBytes(static_cast<int64_t>(nFrames) * dim, 4, ok);
  if (!ok) return -1;
  unsigned char *floats = readBytes(stream, floatBytes);
  if (floats == nullptr) return -1;
  unsigned char *shorts = readBytes(stream, floatBytes / 2);
  auto *rec = shorts ? static_cast<XKwPattern *>(std::calloc(1, sizeof(XKwPattern))) : nullptr;
  float **floatData = rec ? XKsAlloc2(nFrames, dim) : nullptr;
  short **data = floatData ? XKwAlloc2(nFrames, dim) : nullptr;
  if (floatData != nullptr && data == nullptr)
    xk::report(XK_StsNoMem, "XKwReadDTWPattern", ShortStore::kNoMem, kModDtw, 2248);
  if (data == nullptr) {
    XKFree2(floatData);
    std::free(rec);
    std::free(shorts);
    std::free(floats);
    return -1;
  }
  const unsigned char *p = floats;
  for (int i = 0; i < nFrames; ++i)
    for (int k = 0; k < dim; ++k, p += 4) floatData[i][k] = getFloat(p);
  p = shorts;
  for (int i = 0; i < nFrames; ++i)
    for (int k = 0; k < dim; ++k, p += 2)
      data[i][k] = static_cast<short>(static_cast<uint16_t>(p[0] | p[1] << 8));
  std::free(shorts);
  std::free(floats);
  rec->id = h[0];
  rec->data = data;
  rec->floatData = floatData;
  rec->dim = dim;
  rec->nFrames = nFrames;
  rec->scale = h[4];
  appendRecord<ShortStore>(rec);
  return rec->id;
}

}  // extern "C"
