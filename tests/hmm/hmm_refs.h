// Helpers shared by the HMM tests: caller matrices, random observations,
// topologies, the walk over every state path, a mixture with its density in
// double, and the fixture that frees.
#pragma once

#include <cmath>
#include <random>
#include <vector>

#include "hmm/forward_kernels.h"
#include "hmm/hmm_internal.h"
#include "hmm/viterbi_kernels.h"
#include "xkl_test_support.h"

namespace hmmtest {

constexpr float kBig = 3.4028235e38f;

// Caller matrices with their row pointers, converted from any element type.
template <class T>
struct Rows {
  std::vector<std::vector<T>> data;
  std::vector<T *> ptr;
  template <class U>
  explicit Rows(const std::vector<std::vector<U>> &d) {
    for (auto &r : d) data.emplace_back(r.begin(), r.end());
    for (auto &r : data) ptr.push_back(r.data());
  }
  Rows(int r, int c, T fill) : Rows(std::vector<std::vector<T>>(r, std::vector<T>(c, fill))) {}
  T **p() { return ptr.data(); }
  T &operator()(int i, int j) { return data[i][j]; }
};

// The public creators of discrete servers, by element type.
inline int init(float **a, float **b, float *pi, int n, int m, int f) { return XKsInitHMMServer(a, b, pi, n, m, f); }
inline int init(short **a, short **b, short *pi, int n, int m, int f) { return XKwInitHMMServer(a, b, pi, n, m, f); }

// A server's internal view.
inline xk::hmm::ServerView viewOf(int id) {
  xk::hmm::ServerView v;
  EXPECT_TRUE(xk::hmm::getServer(id, &v));
  return v;
}

// A server's status word (0 for an unknown id).
inline unsigned statusOf(int id) {
  int status = 0;
  XKGetHMMParm(id, nullptr, nullptr, nullptr, nullptr, &status);
  return static_cast<unsigned>(status);
}

// Topologies 0 general, 1 left-right (j >= i), 2 Bakis (i <= j <= i + 2).
inline bool allowed(int topo, int i, int j) { return topo == 0 || (j >= i && (topo == 1 || j <= i + 2)); }

inline std::vector<int> randomObs(int T, int m, std::mt19937 &rng) {
  std::uniform_int_distribution<int> sym(0, m - 1);
  std::vector<int> o(T);
  for (int &v : o) v = sym(rng);
  return o;
}

// Calls visit(s) for each of the n^T state sequences s.
template <class F>
void forEachPath(int n, int T, F visit) {
  std::vector<int> s(T, 0);
  for (;;) {
    visit(s);
    int t = 0;
    while (t < T && ++s[t] == n) s[t++] = 0;
    if (t == T) return;
  }
}

// One state's diagonal mixture with integer means and inverse variances
// iv 2^-4 and weights 32767 / nMix (Q15 in the 16-bit form), made as a
// float and as a 16-bit Gauss server.
struct Mixture {
  std::vector<std::vector<short>> mu, iv;
  short w;
  Mixture(int nMix, int dim, std::mt19937 &rng) : w(static_cast<short>(32767 / nMix)) {
    std::uniform_int_distribution<int> m(-3, 3), v(1, 4);
    mu.assign(nMix, std::vector<short>(dim)), iv = mu;
    for (int k = 0; k < nMix; ++k)
      for (int d = 0; d < dim; ++d) mu[k][d] = static_cast<short>(m(rng)), iv[k][d] = static_cast<short>(v(rng));
  }
  GaussMixServer *make(bool fixed) const {
    const int nMix = static_cast<int>(mu.size()), dim = static_cast<int>(mu[0].size());
    if (fixed) {
      Rows<short> m(mu), v(iv);
      const std::vector<short> ww(nMix, w);
      return XKwInitGaussMixServer(ww.data(), m.p(), nullptr, v.p(), dim, nMix, 0, -4);
    }
    Rows<float> m(mu), v(iv);
    for (auto &r : v.data)
      for (float &x : r) x /= 16.0f;
    const std::vector<float> fw(nMix, w / 32768.0f);
    return XKsInitGaussMixServer(fw.data(), m.p(), nullptr, v.p(), dim, nMix, 0);
  }
  // sum_k w_k exp(-1/2 sum_d (x_d - mu_d)^2 iv_d 2^-4), in double.
  double density(const std::vector<short> &x) const {
    double sum = 0.0;
    for (std::size_t k = 0; k < mu.size(); ++k) {
      double dist = 0.0;
      for (std::size_t d = 0; d < x.size(); ++d) dist += std::pow(x[d] - mu[k][d], 2) * iv[k][d] / 16.0;
      sum += w / 32768.0 * std::exp(-0.5 * dist);
    }
    return sum;
  }
};

// Frees every server and class and restores the kernel switches.
struct Freed : xkltest::ReportingTest {
  void TearDown() override {
    XKHMMFreeAll();
    xk::hmm::setViterbiSimd(true);
    xk::hmm::setForwardIsa(xk::hmm::ForwardIsa::Auto);
    xk::hmm::setKernelLayout(true);
    xkltest::ReportingTest::TearDown();
  }
};

}  // namespace hmmtest
