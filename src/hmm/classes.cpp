// HMM classes: sets of servers of one kind, kept in sorted blocks of up to
// 64 members, with an iteration that survives additions and removals.
#include <cstdlib>
#include <cstring>

#include "frame/context.h"
#include "frame/report.h"
#include "hmm/classes.h"
#include "hmm/hmm_internal.h"

namespace xk::hmm {

namespace {
constexpr int kBlockSize = 64;
constexpr int kLastMaxId = 0x1FFFFFFF;
constexpr unsigned kNotStarted = 0x80000000u;
}  // namespace

struct MemberBlock {
  int classId;
  MemberBlock *next;
  int maxId;  // largest id this block may hold
  int count;
  struct {
    int id;
    Server *server;
  } m[kBlockSize];
};

struct HmmClass {
  int id;
  int spare;
  HmmClass *next, *prev;
  int count;
  unsigned state;  // bit 31: iteration not started; kind bits of the members
  MemberBlock *first;
  MemberBlock *iterBlock;  // the iteration's block and the index of the
  int iterIndex;           // member it returns next
};

namespace {

HmmClass *classSentinel() { return static_cast<HmmClass *>(context().hmm.classes); }

// Removes member `idx` of `blk` (whose predecessor is `prev`, or null),
// freeing the block when it empties; keeps the iteration position on the
// member it would have returned next.
void removeAt(HmmClass *c, MemberBlock *prev, MemberBlock *blk, int idx) {
  std::memmove(&blk->m[idx], &blk->m[idx + 1], sizeof(blk->m[0]) * static_cast<std::size_t>(blk->count - idx - 1));
  --blk->count;
  --c->count;
  if (c->iterBlock == blk && idx < c->iterIndex) --c->iterIndex;
  if (blk->count > 0) return;
  if (prev != nullptr) {
    prev->next = blk->next;
    if (blk->next == nullptr) prev->maxId = kLastMaxId;
  } else {
    c->first = blk->next;
  }
  if (c->iterBlock == blk) {
    c->iterBlock = blk->next;
    c->iterIndex = 0;
  }
  std::free(blk);
}

// Finds id in the class: its block, the block before it, its index; false
// when it is not a member.
bool locate(HmmClass *c, int id, MemberBlock **prevOut, MemberBlock **blkOut, int *idxOut) {
  MemberBlock *prev = nullptr;
  for (MemberBlock *b = c->first; b != nullptr; prev = b, b = b->next) {
    if (b->maxId < id) continue;
    for (int k = 0; k < b->count; ++k)
      if (b->m[k].id == id) {
        *prevOut = prev;
        *blkOut = b;
        *idxOut = k;
        return true;
      }
    return false;
  }
  return false;
}

void freeBlocks(HmmClass *c) {
  for (MemberBlock *b = c->first; b != nullptr;) {
    MemberBlock *next = b->next;
    std::free(b);
    b = next;
  }
}

}  // namespace

void *newClassSentinel() {
  auto *s = static_cast<HmmClass *>(std::calloc(1, sizeof(HmmClass)));
  if (s != nullptr) s->next = s->prev = s;
  return s;
}

void freeClassSentinel(void *sentinel) { std::free(sentinel); }

void removeFromAllClasses(int id) {
  HmmClass *head = classSentinel();
  for (HmmClass *c = head->next; c != head; c = c->next) {
    MemberBlock *prev, *blk;
    int idx;
    if (locate(c, id, &prev, &blk, &idx)) removeAt(c, prev, blk, idx);
  }
}

void freeAllClasses() {
  HmmClass *head = classSentinel();
  for (HmmClass *c = head->next; c != head;) {
    HmmClass *next = c->next;
    freeBlocks(c);
    std::free(c);
    c = next;
  }
  head->next = head->prev = head;
  context().hmm.classCount = 0;
}

HmmClass *findClass(int classId) {
  return tablesReady() && classId >= 1 ? findSorted(classSentinel(), classId) : nullptr;
}

void classRewind(HmmClass *c) { c->state |= kNotStarted; }

int classNext(HmmClass *c) {
  if (c->state & kNotStarted) {
    c->state &= ~kNotStarted;
    c->iterBlock = c->first;
    c->iterIndex = 0;
  }
  while (c->iterBlock != nullptr && c->iterIndex >= c->iterBlock->count) {
    c->iterBlock = c->iterBlock->next;
    c->iterIndex = 0;
  }
  if (c->iterBlock == nullptr) return 0;
  return c->iterBlock->m[c->iterIndex++].id;
}

}  // namespace xk::hmm

using namespace xk::hmm;

extern "C" {

int XKCreateHMMClass(void) {
  if (!makeTables()) return -1;
  HmmClass *head = classSentinel();
  // The smallest id after the run 1, 2, ... of ids in use.
  int id = 1;
  HmmClass *after = head;
  for (HmmClass *c = head->next; c != head && c->id == id; c = c->next, ++id) after = c;
  auto *c = static_cast<HmmClass *>(std::calloc(1, sizeof(HmmClass)));
  if (c == nullptr) return -1;
  c->id = id;
  c->state = kNotStarted;
  c->prev = after;
  c->next = after->next;
  after->next->prev = c;
  after->next = c;
  ++xk::context().hmm.classCount;
  return id;
}

int XKDeleteHMMClass(int classId) {
  HmmClass *c = findClass(classId);
  if (c == nullptr) return -1;
  c->prev->next = c->next;
  c->next->prev = c->prev;
  freeBlocks(c);
  std::free(c);
  --xk::context().hmm.classCount;
  return 1;
}

int XKAddHMMToClass(int classId, int id) {
  HmmClass *c = findClass(classId);
  Server *s = findServer(id);
  if (c == nullptr || s == nullptr) return -1;
  const unsigned kind = s->status & kKindMask;
  if (c->count == 0) {
    c->state = (c->state & ~kKindMask) | kind;
  } else if ((c->state & kKindMask) != kind) {
    xk::report(XK_StsBadArg, "XKAddHMMToClass", "wrong class for HMM server", kModHman, 1253);
    return -1;
  }
  if (c->first == nullptr) {
    auto *b = static_cast<MemberBlock *>(std::calloc(1, sizeof(MemberBlock)));
    if (b == nullptr) return -1;
    b->classId = classId;
    b->maxId = kLastMaxId;
    c->first = b;
  }
  MemberBlock *b = c->first;
  while (b->maxId < id) b = b->next;  // the last block allows every id
  for (int k = 0; k < b->count; ++k)
    if (b->m[k].id == id) return 1;
  if (b->count == kBlockSize) {
    // Split: the upper half moves to a new block after this one.
    auto *nb = static_cast<MemberBlock *>(std::calloc(1, sizeof(MemberBlock)));
    if (nb == nullptr) return -1;
    constexpr int half = kBlockSize / 2;
    std::memcpy(nb->m, &b->m[half], sizeof(b->m[0]) * half);
    nb->count = half;
    nb->classId = classId;
    nb->maxId = b->maxId;
    nb->next = b->next;
    b->next = nb;
    b->count = half;
    b->maxId = b->m[half - 1].id;
    if (c->iterBlock == b && c->iterIndex >= half) {
      c->iterBlock = nb;
      c->iterIndex -= half;
    }
    if (id > b->maxId) b = nb;
  }
  int pos = 0;
  while (pos < b->count && b->m[pos].id < id) ++pos;
  std::memmove(&b->m[pos + 1], &b->m[pos], sizeof(b->m[0]) * static_cast<std::size_t>(b->count - pos));
  b->m[pos].id = id;
  b->m[pos].server = s;
  ++b->count;
  ++c->count;
  if (c->iterBlock == b && pos < c->iterIndex) ++c->iterIndex;
  return 1;
}

int XKRemoveHMMFromClass(int classId, int id) {
  HmmClass *c = findClass(classId);
  if (c == nullptr || findServer(id) == nullptr) return -1;
  MemberBlock *prev, *blk;
  int idx;
  if (locate(c, id, &prev, &blk, &idx)) removeAt(c, prev, blk, idx);
  return 1;
}

}  // extern "C"
