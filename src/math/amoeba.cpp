// Downhill simplex minimiser after Nelder and Mead.
#include "zqmath/amoeba.h"

#include "zqcommon/diagnostics.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace {

// A vector that borrows a matrix row's storage (no copy per row); it gives
// the storage back before the vector's own destructor could free it.
class RowView : public CVector<double> {
 public:
  void attach(const double* row, int n) {
    m_v = const_cast<double*>(row);
    m_dim = m_size = n;
  }
  ~RowView() override {
    m_v = nullptr;
    m_dim = m_size = 0;
  }
};

constexpr int kNMax = 50000;
constexpr double kTiny = 1e-10;

// A row of `m` copied into `v` (already of the right dimension).
void copy_row(const CMatrix<double>& m, int row, CVector<double>& v) {
  const double* r = m.Row(row);
  for (int j = 0; j < v.Dim(); ++j) v(j) = r[j];
}

void column_sums(const CMatrix<double>& p, int ndim, CVector<double>& psum) {
  for (int j = 0; j < ndim; ++j) {
    double sum = 0.0;
    for (int i = 0; i <= ndim; ++i) sum += p.Row(i)[j];
    psum(j) = sum;
  }
}

double score_row(void* user, const CMatrix<double>& data, FitFunc func, const CMatrix<double>& p,
                 int row, CVector<double>& scratch) {
  copy_row(p, row, scratch);
  return calc_chi_messdaten(user, data, func, scratch);
}

}  // namespace

double random(double scale) {
  return (static_cast<double>(std::rand()) - 1073741823.5) * scale / 2147483647.0;
}

double calc_chi_messdaten(void* user, const CMatrix<double>& data, FitFunc func,
                          const CVector<double>& params) {
  RowView row;  // each row is handed to the model in place
  double sum = 0.0;
  const int columns = data.Dim2();
  for (int i = 0; i < data.Dim1(); ++i) {
    row.attach(data.Row(i), columns);
    sum += func(user, row, params);
  }
  return sum;
}

double amotry(void* user, CMatrix<double>& p, CVector<double>& y, CVector<double>& psum, int ndim,
              const CMatrix<double>& data, FitFunc func, int ihi, double fac) {
  thread_local CVector<double> ptry;
  ptry.ReSize(ndim);
  const double fac1 = (1.0 - fac) / ndim;
  const double fac2 = fac1 - fac;
  double* worst = p.Row(ihi);
  for (int j = 0; j < ndim; ++j) ptry(j) = psum(j) * fac1 - worst[j] * fac2;
  const double ytry = calc_chi_messdaten(user, data, func, ptry);
  if (ytry < y(ihi)) {
    y(ihi) = ytry;
    for (int j = 0; j < ndim; ++j) {
      psum(j) += ptry(j) - worst[j];
      worst[j] = ptry(j);
    }
  }
  return ytry;
}

void amoeba(void* user, CMatrix<double>& p, CVector<double>& y, int ndim, double ftol,
            const CMatrix<double>& data, FitFunc func, int* nfunk) {
  CVector<double> psum(ndim);
  *nfunk = 0;
  column_sums(p, ndim, psum);
  for (;;) {
    int ilo = 0, ihi, inhi;
    if (y(0) > y(1)) {
      ihi = 0;
      inhi = 1;
    } else {
      ihi = 1;
      inhi = 0;
    }
    for (int i = 0; i <= ndim; ++i) {
      if (y(i) <= y(ilo)) ilo = i;
      if (y(i) > y(ihi)) {
        inhi = ihi;
        ihi = i;
      } else if (y(i) > y(inhi) && i != ihi) {
        inhi = i;
      }
    }
    const double rtol = 2.0 * std::fabs(y(ihi) - y(ilo)) / (std::fabs(y(ihi)) + std::fabs(y(ilo)) + kTiny);
    if (rtol < ftol) {
      std::swap(y(0), y(ilo));
      for (int j = 0; j < ndim; ++j) std::swap(p.Row(0)[j], p.Row(ilo)[j]);
      return;
    }
    if (*nfunk >= kNMax) {
      zqcommon::WriteDiagnostic(zqcommon::DiagnosticStream::kError, "NMAX exceeded\n", 14);
      return;
    }
    *nfunk += 2;
    double ytry = amotry(user, p, y, psum, ndim, data, func, ihi, -1.0);
    if (ytry <= y(ilo)) {
      amotry(user, p, y, psum, ndim, data, func, ihi, 2.0);
    } else if (ytry >= y(inhi)) {
      const double ysave = y(ihi);
      ytry = amotry(user, p, y, psum, ndim, data, func, ihi, 0.5);
      if (ytry >= ysave) {
        const double* best = p.Row(ilo);
        for (int i = 0; i <= ndim; ++i) {
          if (i == ilo) continue;
          double* row = p.Row(i);
          for (int j = 0; j < ndim; ++j) row[j] = psum(j) = 0.5 * (row[j] + best[j]);
          y(i) = calc_chi_messdaten(user, data, func, psum);
        }
        *nfunk += ndim;
        column_sums(p, ndim, psum);
      }
    } else {
      *nfunk -= 1;
    }
  }
}

void make_any_steps(void* user, const CMatrix<double>& data, FitFunc func, double scale,
                    CMatrix<double>& p, CVector<double>& params, int* nfunk, double* chi) {
  const int ndim = p.Dim2();
  CVector<double> y(ndim + 1), vertex(ndim);
  int total = 0;
  double best = 1e12;
  for (int run = 0; run < 16; ++run) {
    for (int i = 0; i <= ndim; ++i) {
      double* row = p.Row(i);
      for (int j = 0; j < ndim; ++j) row[j] = run == 0 ? random(scale) : row[j] + random(0.001);
    }
    for (int i = 0; i <= ndim; ++i) y(i) = score_row(user, data, func, p, i, vertex);
    int count = 0;
    amoeba(user, p, y, ndim, run == 0 ? 1e-9 : 1e-10, data, func, &count);
    total += count;
    *nfunk = total;
    const double score = score_row(user, data, func, p, 0, vertex);
    if (score < best) {
      best = score;
      params = vertex;
    }
  }
  *chi = best;
}

void fit(void* user, const CMatrix<double>& data, FitFunc func, CVector<double>& params, int* nfunk,
         double* chi) {
  const int ndim = params.Dim();
  CMatrix<double> p(ndim + 1, ndim);
  p.Initialize(0.0);
  for (int i = 0; i < ndim; ++i) p(i, i) = params(i);
  int count = 0;
  double best = 0.0;
  make_any_steps(user, data, func, 10.0, p, params, &count, &best);
  if (nfunk != nullptr) *nfunk = count;
  if (chi != nullptr) *chi = best / data.Dim1();
}
