// Per-thread context record of the library.
//
// Every thread that calls the library gets one record, created on its first
// call and released when the thread ends. Only the record itself is released
// then: the tables, lists and servers whose pointers it holds belong to the
// subsystems, and a thread must call their release functions (XKFreeCepsTbls,
// XKFreeLPTbls, XKHMMFreeAll, ...) before it ends. Nothing here is locked: a
// record is private to its thread.
#pragma once

#include "xkl/xk_error.h"

namespace xk {

struct XKContext {
  // Status and error reporting.
  int status;
  int errMode;
  XKErrorCallback handler;

  // Pre-emphasis buffer and LP-spectrum scratch (owned by src/features).
  struct {
    float *buff;             // pre-emphasis conversion path
    int buffLen;             // its capacity in floats
    void *slot[6];           // LP-spectrum buffers, see features/lp_response.cpp
    int slotKey[6][2];       // (order, p) each buffer was built for
  } preemphLpSpec;

  // Linear-prediction tables (2-D tables from XKsAlloc2).
  struct {
    float **arrAutocorr;
    int autocorrLen;
    float **arrCovariance;
    int covarianceLen;
  } lpred;

  // Cepstrum scratch and the mel-scale constants.
  struct {
    void *buf[11];           // see features/cepstrum.cpp for the slots
    int fftCap, filterCap, cepsCap;
    float melMul, melDiv;
    float *dctBasis;         // DCT-II rows for dctLen inputs
    int dctLen;
  } ceps;

  // HMM tables (owned by src/hmm): the circular server list with its id-0
  // sentinel and insertion cursor, the circular class list with its
  // sentinel, their counts, the flag word (bit 24 tables made, bits 26/27
  // the mode) and the fast-kernel switch (on while kernelLayoutOff is 0).
  struct {
    void *servers;
    void *cursor;
    int serverCount;
    void *classes;
    int classCount;
    unsigned flags;
    int kernelLayoutOff;
  } hmm;

  // Forward-evaluation scratch.
  struct {
    void *buf[4];
  } hmmForward;

  // Current semicontinuous codebooks, float and 16-bit flavours.
  struct {
    void *sCodebook;
    void *wCodebook;
  } semicont;

  // Pattern stores: number of stored patterns and head of their list.
  struct {
    int count;
    void *head;
  } wPatterns, sPatterns;

  // Gauss scratch: the matrix buffer (row table, then rows of dimPad floats)
  // of the determinant and the inversion, with its capacity in rows, and the
  // training's float vector with its capacity in elements.
  struct {
    int matCap;
    float **mat;
    int vecCap;
    float *vec;
  } gauss;
};

// The calling thread's record, created on first use. Never null: if the
// record cannot be allocated the process ends with a fatal-exit text.
XKContext &context();

// Ends the process at once with `text` on standard error, without running
// exit handlers (the host's form of a fatal application exit).
[[noreturn]] void fatalExit(const char *text);

}  // namespace xk
