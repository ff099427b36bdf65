// Class tables as the server code needs them: the list sentinel, removal of
// a freed server from every class, and release of all classes.
#pragma once

namespace xk::hmm {

// Makes the thread's HMM tables if they are not made yet; false when memory
// fails (the tables then stay unmade).
bool makeTables();

// The record with `id` in a circular list sorted by id (servers or classes),
// or null: the walk stops at the first larger id.
template <class Record>
Record *findSorted(Record *head, int id) {
  for (Record *r = head->next; r != head && r->id <= id; r = r->next)
    if (r->id == id) return r;
  return nullptr;
}

void *newClassSentinel();
void freeClassSentinel(void *sentinel);
void removeFromAllClasses(int id);
void freeAllClasses();

}  // namespace xk::hmm
