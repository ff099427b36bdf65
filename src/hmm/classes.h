// Class tables as the server code needs them: the list sentinel, removal of
// a freed server from every class, and release of all classes.
#pragma once

namespace xk::hmm {

// Makes the thread's HMM tables if they are not made yet; false when memory
// fails (the tables then stay unmade).
bool makeTables();

void *newClassSentinel();
void freeClassSentinel(void *sentinel);
void removeFromAllClasses(int id);
void freeAllClasses();

}  // namespace xk::hmm
