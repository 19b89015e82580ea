// A small dense matrix whose rows are separate arrays behind row pointers.
#ifndef ZQMATH_CMATRIX_H
#define ZQMATH_CMATRIX_H

#include <cassert>
#include <cmath>
#include <iostream>
#include <utility>

#include "zqmath/cvector.h"

// Rows 0 .. Dim1()-1, columns 0 .. Dim2()-1; each row is its own array, so
// RowSwap() exchanges two pointers. operator() with an index at or past the
// end prints "Matrix Access to Element:: i, j denied:" on standard error and
// returns a shared dummy element; RowSwap and ColumnSwap assert. Only upper
// bounds are tested. Elements are not initialised by ReSize(); a resize that
// must widen the rows loses their contents.
template <typename T>
class CMatrix {
 public:
  CMatrix(int rows = 0, int cols = 0) { ReSize(rows, cols); }
  CMatrix(const CMatrix& other) : CMatrix(other.m_dim1, other.m_dim2) {
    for (int i = 0; i < m_dim1; ++i)
      for (int j = 0; j < m_dim2; ++j) m_mat[i][j] = other.m_mat[i][j];
  }
  CMatrix& operator=(const CMatrix& other) {
    if (this == &other) return *this;
    ReSize(other.m_dim1, other.m_dim2);
    for (int i = 0; i < m_dim1; ++i)
      for (int j = 0; j < m_dim2; ++j) m_mat[i][j] = other.m_mat[i][j];
    return *this;
  }
  virtual ~CMatrix() { free_all(); }

  virtual void ReSize(int rows, int cols) {
    if (m_size1 >= rows) {
      if (m_size2 < cols) {  // rows too narrow: replaced, contents lost
        for (int i = 0; i < m_size1; ++i) {
          delete[] m_mat[i];
          m_mat[i] = new T[cols];
        }
        m_size2 = cols;
      }
    } else if (m_mat == nullptr || m_size2 > cols) {  // no table yet, or rows wider
      free_all();
      m_mat = new T*[rows];
      for (int i = 0; i < rows; ++i) m_mat[i] = new T[cols];
      m_size2 = cols;
      m_size1 = rows;
    } else {  // more rows, no wider than before: keep the old rows
      T** table = new T*[rows];
      for (int i = 0; i < m_size1; ++i) table[i] = m_mat[i];
      for (int i = m_size1; i < rows; ++i) table[i] = new T[m_size2];
      delete[] m_mat;
      m_mat = table;
      m_size1 = rows;
      if (m_size2 < cols) {  // rows narrower than the columns in use: widened
        for (int i = 0; i < m_size1; ++i) {
          delete[] m_mat[i];
          m_mat[i] = new T[cols];
        }
        m_size2 = cols;
      }
    }
    m_dim1 = rows;
    m_dim2 = cols;
  }
  int Dim1() const { return m_dim1; }
  int Dim2() const { return m_dim2; }

  void Initialize(const T& v) {
    for (int i = 0; i < m_dim1; ++i)
      for (int j = 0; j < m_dim2; ++j) m_mat[i][j] = v;
  }
  void clear() { Initialize(T()); }
  // The identity (ones on the diagonal, zeros elsewhere).
  void Unity() {
    clear();
    for (int i = 0; i < m_dim1 && i < m_dim2; ++i) m_mat[i][i] = T(1);
  }

  T& operator()(int i, int j) {
    if (i < Dim1() && j < Dim2()) return m_mat[i][j];
    zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "Matrix Access to Element:: %i, %i denied:\n", i, j);
    static T dummy;
    return dummy;
  }
  const T& operator()(int i, int j) const {
    if (i < Dim1() && j < Dim2()) return m_mat[i][j];
    zqcommon::DiagnosticPrintf(zqcommon::DiagnosticStream::kError, "Matrix Access to Element:: %i, %i denied:\n", i, j);
    static T dummy;
    return dummy;
  }
  // Row i as a plain array (for fast loops over known-good indexes).
  T* Row(int i) { return m_mat[i]; }
  const T* Row(int i) const { return m_mat[i]; }

  virtual void RowSwap(int i, int j) {
    assert(i < Dim1());
    assert(j < Dim1());
    std::swap(m_mat[i], m_mat[j]);
  }
  virtual void ColumnSwap(int i, int j) {
    assert(i < Dim2());
    assert(j < Dim2());
    for (int r = 0; r < m_dim1; ++r) std::swap(m_mat[r][i], m_mat[r][j]);
  }

  CMatrix Transposed() const {
    CMatrix t(m_dim2, m_dim1);
    for (int i = 0; i < m_dim1; ++i)
      for (int j = 0; j < m_dim2; ++j) t.m_mat[j][i] = m_mat[i][j];
    return t;
  }
  // Matrix times vector; the dimensions must agree.
  CVector<T> operator*(const CVector<T>& v) const {
    assert(v.Dim() == m_dim2);
    CVector<T> out(m_dim1);
    for (int i = 0; i < m_dim1; ++i) {
      T sum = T();
      for (int j = 0; j < m_dim2; ++j) sum += m_mat[i][j] * v(j);
      out(i) = sum;
    }
    return out;
  }
  CMatrix operator*(const CMatrix& b) const {
    assert(m_dim2 == b.m_dim1);
    CMatrix out(m_dim1, b.m_dim2);
    for (int i = 0; i < m_dim1; ++i)
      for (int j = 0; j < b.m_dim2; ++j) {
        T sum = T();
        for (int k = 0; k < m_dim2; ++k) sum += m_mat[i][k] * b.m_mat[k][j];
        out.m_mat[i][j] = sum;
      }
    return out;
  }
  // The Frobenius norm.
  T Norm2() const {
    T sum = T();
    for (int i = 0; i < m_dim1; ++i)
      for (int j = 0; j < m_dim2; ++j) sum += m_mat[i][j] * m_mat[i][j];
    return std::sqrt(sum);
  }

 protected:
  void free_all() {
    if (m_mat != nullptr) {
      for (int i = 0; i < m_size1; ++i) delete[] m_mat[i];
      delete[] m_mat;
    }
    m_mat = nullptr;
    m_size1 = 0;
    m_size2 = 0;
  }

  int m_dim1 = 0, m_dim2 = 0;
  int m_size1 = 0, m_size2 = 0;
  T** m_mat = nullptr;
};

#endif
