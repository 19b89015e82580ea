// Least-squares fitting with the downhill simplex method of Nelder and Mead.
#ifndef ZQMATH_AMOEBA_H
#define ZQMATH_AMOEBA_H

#include "zqmath/cmatrix.h"
#include "zqmath/cvector.h"
#include "zqcommon/export.h"

// Scores one measurement (a row of the table) against a parameter vector;
// normally the squared residual. `user` is passed through untouched.
typedef double (*FitFunc)(void* user, const CVector<double>& measurement,
                          const CVector<double>& params);

// (rand() - 1073741823.5) * scale / 2147483647: evenly over about -scale/2 to
// +scale/2. The generator is never seeded here.
ZQ_EXPORT double random(double scale);
// The sum of `func` over the rows of `data`; 0 for a table without rows.
ZQ_EXPORT double calc_chi_messdaten(void* user, const CMatrix<double>& data, FitFunc func,
                                    const CVector<double>& params);
// One trial move of the worst vertex `ihi` by factor `fac`; its score.
ZQ_EXPORT double amotry(void* user, CMatrix<double>& p, CVector<double>& y, CVector<double>& psum,
                        int ndim, const CMatrix<double>& data, FitFunc func, int ihi, double fac);
// Minimises from the simplex `p` (ndim + 1 rows) whose scores `y` the caller
// filled. Row 0 and y[0] hold the best vertex when the tolerance was met;
// after 50000 evaluations it prints "NMAX exceeded" and stops as it stands.
ZQ_EXPORT void amoeba(void* user, CMatrix<double>& p, CVector<double>& y, int ndim, double ftol,
                      const CMatrix<double>& data, FitFunc func, int* nfunk);
// The randomised driver: one run from a random simplex and fifteen shaken
// restarts; the best parameters, the evaluation count and the best score.
ZQ_EXPORT void make_any_steps(void* user, const CMatrix<double>& data, FitFunc func, double scale,
                              CMatrix<double>& p, CVector<double>& params, int* nfunk, double* chi);
// Fits `params` to the measurements (one per row of `data`). The start vector
// counts only through its dimension: the search starts at random (seed rand()
// yourself to repeat it). `nfunk` (evaluations) and `chi` (mean score per
// measurement) may be null. Not thread-safe (rand()).
ZQ_EXPORT void fit(void* user, const CMatrix<double>& data, FitFunc func, CVector<double>& params,
                   int* nfunk, double* chi);

#endif
