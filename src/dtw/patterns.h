// Internal access to the thread's pattern stores, shared by the store, the
// DTW evaluation and the pattern files.
#pragma once

#include "frame/context.h"
#include "xkl/xk_dtw.h"

namespace xk::dtw {

inline constexpr const char *kModDtw = "XK_DTW";

// The up-conversion argument -s for data with binary scale s (value =
// w * 2^s). Beyond +-4096 every 16-bit value already converts to 0 or
// infinity, so the clamp changes no result and keeps -INT_MIN defined.
inline int upScale(int s) { return s <= -4096 ? 4096 : s >= 4096 ? -4096 : -s; }

// What differs between the float and the 16-bit store: the record type,
// where the thread context keeps the list, and the report texts and lines.
struct FloatStore {
  using Record = XKsPattern;
  static auto &group() { return context().sPatterns; }
  static constexpr const char *kIniFunc = "XKsPatternIni";
  static constexpr const char *kNoMem = "sPattern can not be allocated";
  static constexpr const char *kGetFunc = "XKsPatternPtrGet";
  static constexpr const char *kNotInit = "sPatterns have not been initialized.";
  static constexpr int kNotInitLine = 542;
  static constexpr const char *kUnlinkFunc = "XKsPatternPtrFree";
  static constexpr const char *kBadList = "Error in internal structure. sPatterns have not be allocated.";
  static constexpr int kBadListLine = 614;
  static constexpr const char *kFreeFunc = "XKsPatternFree";
  static constexpr const char *kNullPtr =
      "sPattern NULL ptr is met in internal structure. The sPattern can not be free.";
  static constexpr int kNullPtrLine = 343;
  static constexpr const char *kFreeAllFunc = "XKsPatternFreeAll";
  static constexpr const char *kCannotFree = "Error in internal structure. sPattern can not be free";
  static constexpr int kCannotFreeLine = 404;
};

struct ShortStore {
  using Record = XKwPattern;
  static auto &group() { return context().wPatterns; }
  static constexpr const char *kIniFunc = "XKwPatternIni";
  static constexpr const char *kNoMem = "wPattern can not be allocated";
  static constexpr const char *kGetFunc = "XKwPatternPtrGet";
  static constexpr const char *kNotInit = "wPatterns have not been initialized.";
  static constexpr int kNotInitLine = 505;
  static constexpr const char *kUnlinkFunc = "XKwPatternPtrFree";
  static constexpr const char *kBadList = "Error in internal structure. wPatterns have not be allocated.";
  static constexpr int kBadListLine = 577;
  static constexpr const char *kFreeFunc = "XKwPatternFree";
  static constexpr const char *kNullPtr =
      "wPattern NULL ptr is met in internal structure. The wPattern can not be free.";
  static constexpr int kNullPtrLine = 322;
  static constexpr const char *kFreeAllFunc = "XKwPatternFreeAll";
  static constexpr const char *kCannotFree = "Error in internal structure. wPattern can not be free";
  static constexpr int kCannotFreeLine = 379;
};

// First record with `id` in the thread's store, or null. An empty store is
// reported ("...Patterns have not been initialized.").
template <class Store>
typename Store::Record *patternPtrGet(int id);

// Id for a new record when the store will hold `newCount` records: 1 for an
// empty list, else the smallest of 1..newCount that no record uses, else
// newCount + 1.
template <class Store>
int chooseId(int newCount);

// Counts a filled record (tables and id set) and appends it at the end of
// the store's list (as its head when the list is empty).
template <class Store>
void appendRecord(typename Store::Record *record);

// Releases a record's tables and the record itself (not linked).
void releaseRecord(XKsPattern *record);
void releaseRecord(XKwPattern *record);

}  // namespace xk::dtw
