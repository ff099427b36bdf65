// The float and 16-bit pattern stores of the calling thread: creation with
// id choice, lookup, release of one pattern or of all.
#include "dtw/patterns.h"

#include <cstdlib>
#include <cstring>

#include "frame/report.h"
#include "xkl/xk_convert.h"
#include "xkl/xk_frame.h"

namespace xk::dtw {

template <class Store>
typename Store::Record *patternPtrGet(int id) {
  auto &g = Store::group();
  auto *rec = static_cast<typename Store::Record *>(g.head);
  if (rec == nullptr) {
    report(XK_StsError, Store::kGetFunc, Store::kNotInit, kModDtw, Store::kNotInitLine);
    return nullptr;
  }
  for (; rec != nullptr; rec = rec->next)
    if (rec->id == id) return rec;
  return nullptr;
}

template <class Store>
int chooseId(int newCount) {
  using Record = typename Store::Record;
  auto *head = static_cast<Record *>(Store::group().head);
  if (head == nullptr) return 1;
  if (newCount <= 1) return 2;
  // Mark the ids 1..newCount in use; only those can be the answer. Without
  // memory for the marks, fall back to one list walk per candidate.
  auto *used = static_cast<unsigned char *>(std::calloc(static_cast<size_t>(newCount) + 1, 1));
  int id = newCount + 1;
  if (used != nullptr) {
    for (Record *r = head; r != nullptr; r = r->next)
      if (r->id >= 1 && r->id <= newCount) used[r->id] = 1;
    for (int k = 1; k <= newCount; ++k)
      if (!used[k]) { id = k; break; }
    std::free(used);
    return id;
  }
  for (int k = 1; k <= newCount; ++k) {
    bool taken = false;
    for (Record *r = head; r != nullptr && !taken; r = r->next) taken = r->id == k;
    if (!taken) return k;
  }
  return id;
}

template <class Store>
void appendRecord(typename Store::Record *record) {
  using Record = typename Store::Record;
  auto &g = Store::group();
  ++g.count;
  record->next = nullptr;
  record->previous = nullptr;
  record->isHead = 0;
  auto *tail = static_cast<Record *>(g.head);
  if (tail == nullptr) {
    record->isHead = 1;
    g.head = record;
    return;
  }
  while (tail->next != nullptr) tail = tail->next;
  tail->next = record;
  record->previous = tail;
}

void releaseRecord(XKsPattern *record) {
  XKFree2(record->data);
  std::free(record);
}

void releaseRecord(XKwPattern *record) {
  XKFree2(record->floatData);
  XKFree2(record->data);
  std::free(record);
}

template XKsPattern *patternPtrGet<FloatStore>(int);
template XKwPattern *patternPtrGet<ShortStore>(int);
template int chooseId<FloatStore>(int);
template int chooseId<ShortStore>(int);
template void appendRecord<FloatStore>(XKsPattern *);
template void appendRecord<ShortStore>(XKwPattern *);

namespace {

// Unlinks a record from its store and releases it: 0, or -1 for no record
// or a store whose count or list is empty (reported).
template <class Store>
int patternPtrFree(typename Store::Record *rec) {
  if (rec == nullptr) return -1;
  auto &g = Store::group();
  if (g.count == 0 || g.head == nullptr) {
    report(XK_StsError, Store::kUnlinkFunc, Store::kBadList, kModDtw, Store::kBadListLine);
    return -1;
  }
  if (!rec->isHead) {
    if (rec->previous != nullptr) rec->previous->next = rec->next;
    if (rec->next != nullptr) rec->next->previous = rec->previous;
  } else {
    g.head = rec->next;
    if (rec->next != nullptr) {
      rec->next->isHead = 1;
      rec->next->previous = nullptr;
    }
  }
  --g.count;
  releaseRecord(rec);
  return 0;
}

template <class Store>
int patternFree(int id) {
  auto *rec = patternPtrGet<Store>(id);
  if (rec != nullptr) return patternPtrFree<Store>(rec);
  report(XK_StsError, Store::kFreeFunc, Store::kNullPtr, kModDtw, Store::kNullPtrLine);
  return -1;
}

template <class Store>
int patternFreeAll() {
  auto *rec = static_cast<typename Store::Record *>(Store::group().head);
  int result = 0;
  while (rec != nullptr) {
    auto *next = rec->next;
    if (patternPtrFree<Store>(rec) != 0) {
      report(XK_StsError, Store::kFreeAllFunc, Store::kCannotFree, kModDtw, Store::kCannotFreeLine);
      result = -1;
    }
    rec = next;
  }
  return result;
}

// A record whose table cannot be allocated is released again (nothing is
// left behind by a failed creation).
template <class Store>
typename Store::Record *newRecord(int line) {
  auto *rec = static_cast<typename Store::Record *>(std::calloc(1, sizeof(typename Store::Record)));
  if (rec == nullptr) report(XK_StsNoMem, Store::kIniFunc, Store::kNoMem, kModDtw, line);
  return rec;
}

}  // namespace
}  // namespace xk::dtw

using namespace xk::dtw;

extern "C" {

int XKsPatternIni(float **frames, int nFrames, int dim) {
  auto *rec = newRecord<FloatStore>(191);
  if (rec == nullptr) return -1;
  rec->data = XKsAlloc2(nFrames, dim);
  if (rec->data == nullptr) {
    std::free(rec);
    xk::report(XK_StsNoMem, FloatStore::kIniFunc, FloatStore::kNoMem, kModDtw, 196);
    return -1;
  }
  rec->id = chooseId<FloatStore>(FloatStore::group().count + 1);
  rec->nFrames = nFrames;
  rec->dim = dim;
  for (int i = 0; i < nFrames; ++i)
    if (dim > 0) std::memcpy(rec->data[i], frames[i], sizeof(float) * static_cast<size_t>(dim));
  appendRecord<FloatStore>(rec);
  return rec->id;
}

int XKwPatternIni(short **frames, int nFrames, int dim, int scale) {
  auto *rec = newRecord<ShortStore>(129);
  if (rec == nullptr) return -1;
  rec->data = XKwAlloc2(nFrames, dim);
  if (rec->data == nullptr) {
    std::free(rec);
    xk::report(XK_StsNoMem, ShortStore::kIniFunc, ShortStore::kNoMem, kModDtw, 135);
    return -1;
  }
  rec->floatData = XKsAlloc2(nFrames, dim);
  if (rec->floatData == nullptr) {
    XKFree2(rec->data);
    std::free(rec);
    xk::report(XK_StsNoMem, ShortStore::kIniFunc, ShortStore::kNoMem, kModDtw, 140);
    return -1;
  }
  rec->id = chooseId<ShortStore>(ShortStore::group().count + 1);
  rec->nFrames = nFrames;
  rec->dim = dim;
  rec->scale = scale;
  for (int i = 0; i < nFrames; ++i) {
    if (dim <= 0) break;
    std::memcpy(rec->data[i], frames[i], sizeof(short) * static_cast<size_t>(dim));
    XKwsbConvertUp(rec->data[i], rec->floatData[i], dim, upScale(scale));
  }
  appendRecord<ShortStore>(rec);
  return rec->id;
}

int XKsPatternGet(int id, float ***data, int *nFrames, int *dim) {
  XKsPattern *rec = patternPtrGet<FloatStore>(id);
  if (rec == nullptr) return 0;
  if (data) *data = rec->data;
  if (nFrames) *nFrames = rec->nFrames;
  if (dim) *dim = rec->dim;
  return rec->id;
}

int XKwPatternGet(int id, short ***data, int *nFrames, int *dim, int *scale) {
  XKwPattern *rec = patternPtrGet<ShortStore>(id);
  if (rec == nullptr) return 0;
  if (data) *data = rec->data;
  if (nFrames) *nFrames = rec->nFrames;
  if (dim) *dim = rec->dim;
  if (scale) *scale = rec->scale;
  return rec->id;
}

int XKsPatternFree(int id) { return patternFree<FloatStore>(id); }
int XKwPatternFree(int id) { return patternFree<ShortStore>(id); }
int XKsPatternFreeAll(void) { return patternFreeAll<FloatStore>(); }
int XKwPatternFreeAll(void) { return patternFreeAll<ShortStore>(); }
int XKsPatternsNumber(void) { return FloatStore::group().count; }
int XKwPatternsNumber(void) { return ShortStore::group().count; }

}  // extern "C"
