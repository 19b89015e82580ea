// A small dense vector whose unchecked access never fails the process.
#ifndef ZQMATH_CVECTOR_H
#define ZQMATH_CVECTOR_H

#include <cassert>
#include <cmath>
#include <cstdio>
#include <iostream>

#include "zqcommon/diagnostics.h"

// Elements 0 .. Dim()-1. operator[] with an index at or past the end prints
// "Vector Access to Element:: i denied:" on standard error and returns a
// shared dummy element (writes to it are lost); operator() asserts instead.
// Only upper bounds are tested: indexes are never negative by contract.
// Shrinking keeps the allocation; new elements are not initialised.
template <typename T>
class CVector {
 public:
  explicit CVector(int n = 0) { ReSize(n); }
  CVector(const CVector& other) : CVector(0) { *this = other; }
  virtual ~CVector() { delete[] m_v; }

  virtual void ReSize(int n) {
    if (m_size < n) {
      T* v = new T[n];
      for (int i = 0; i < m_dim; ++i) v[i] = m_v[i];
      delete[] m_v;
      m_v = v;
      m_size = n;
    }
    m_dim = n;
  }
  int Dim() const { return m_dim; }

  T& operator[](int i) {
    if (i < m_dim) return m_v[i];
    zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "Vector Access to Element:: %i denied:\n", i);
    static T dummy;
    return dummy;
  }
  const T& operator[](int i) const { return const_cast<CVector&>(*this)[i]; }
  T& operator()(int i) {
    assert(i < m_dim);
    return m_v[i];
  }
  const T& operator()(int i) const {
    assert(i < m_dim);
    return m_v[i];
  }

  CVector& operator=(const CVector& other) {
    if (this == &other) return *this;
    ReSize(other.m_dim);
    for (int i = 0; i < m_dim; ++i) m_v[i] = other.m_v[i];
    return *this;
  }

  // Sets every element to 0.
  void clear() {
    for (int i = 0; i < m_dim; ++i) m_v[i] = T();
  }
  // The Euclidean norm and the largest absolute element.
  T Norm2() const {
    T sum = T();
    for (int i = 0; i < m_dim; ++i) sum += m_v[i] * m_v[i];
    return std::sqrt(sum);
  }
  T NormMax() const {
    T best = T();
    for (int i = 0; i < m_dim; ++i) best = std::max(best, static_cast<T>(std::fabs(m_v[i])));
    return best;
  }
  // The scalar product; the dimensions must agree.
  T operator*(const CVector& other) const {
    assert(m_dim == other.m_dim);
    T sum = T();
    for (int i = 0; i < m_dim; ++i) sum += m_v[i] * other.m_v[i];
    return sum;
  }

 protected:
  int m_dim = 0;
  int m_size = 0;
  T* m_v = nullptr;
};

#endif
