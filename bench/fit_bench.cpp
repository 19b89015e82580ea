// Fit quality and cost: y = a*exp(-b*x) + c*x + d on 1,000 noisy points (x
// evenly in [0, 5], a = 2, b = 0.7, c = 0.3, d = 1, Gaussian noise 0.05,
// fixed seeds) with fit() and with GSL's nmsimplex2 from the same start, in
// one run; then the time per score evaluation (calc_chi_messdaten called
// directly, see direct_call.h) against the same model written inline into a
// plain loop over the same points, medians of 7 alternating passes. The
// evaluation cost is reported; no goal is set for it.
#include <gsl/gsl_multimin.h>
#include <zqmath/amoeba.h>

#include "bench_util.h"
#include "direct_call.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace {

constexpr int kPoints = 1000;

inline double residual2(double x, double y, const double* p) {
  const double r = p[0] * std::exp(-p[1] * x) + p[2] * x + p[3] - y;
  return r * r;
}

double model(void*, const CVector<double>& m, const CVector<double>& p) {
  const double r = p(0) * std::exp(-p(1) * m(0)) + p(2) * m(0) + p(3) - m(1);
  return r * r;
}

struct Table {
  std::vector<double> x, y;
};

double hand_loop(const Table& t, const double* p) {
  double sum = 0;
  for (int i = 0; i < kPoints; ++i) sum += residual2(t.x[i], t.y[i], p);
  return sum;
}

long g_gsl_evaluations = 0;
double gsl_score(const gsl_vector* v, void* table) {
  ++g_gsl_evaluations;
  const double p[4] = {gsl_vector_get(v, 0), gsl_vector_get(v, 1), gsl_vector_get(v, 2),
                       gsl_vector_get(v, 3)};
  return hand_loop(*static_cast<Table*>(table), p);
}

double seconds_since(std::chrono::steady_clock::time_point t0) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace

int main(int argc, char** argv) {
  std::mt19937 rng(2026);
  std::normal_distribution<double> noise(0.0, 0.05);
  Table table;
  CMatrix<double> data(kPoints, 2);
  const double truth[4] = {2.0, 0.7, 0.3, 1.0};
  for (int i = 0; i < kPoints; ++i) {
    const double x = 5.0 * i / (kPoints - 1);
    const double y = truth[0] * std::exp(-truth[1] * x) + truth[2] * x + truth[3] + noise(rng);
    table.x.push_back(x);
    table.y.push_back(y);
    data(i, 0) = x;
    data(i, 1) = y;
  }

  // Ours, from the start (0, 0, 0, 0).
  std::srand(7);
  CVector<double> params(4);
  params.clear();
  int evaluations = 0;
  double chi = 0;
  auto t0 = std::chrono::steady_clock::now();
  fit(nullptr, data, model, params, &evaluations, &chi);
  const double ours_time = seconds_since(t0);

  // GSL nmsimplex2 from the same start, step 1, until the simplex is below 1e-10.
  gsl_vector* start = gsl_vector_calloc(4);
  gsl_vector* step = gsl_vector_alloc(4);
  gsl_vector_set_all(step, 1.0);
  gsl_multimin_function f{gsl_score, 4, &table};
  gsl_multimin_fminimizer* s = gsl_multimin_fminimizer_alloc(gsl_multimin_fminimizer_nmsimplex2, 4);
  t0 = std::chrono::steady_clock::now();
  gsl_multimin_fminimizer_set(s, &f, start, step);
  for (int iter = 0; iter < 200000; ++iter) {
    if (gsl_multimin_fminimizer_iterate(s) != GSL_SUCCESS) break;
    if (gsl_multimin_test_size(gsl_multimin_fminimizer_size(s), 1e-10) == GSL_SUCCESS) break;
  }
  const double gsl_time = seconds_since(t0);
  const double gsl_chi = s->fval / kPoints;

  std::printf("Fit of y = a exp(-b x) + c x + d to %d points (noise 0.05)\n", kPoints);
  std::printf("  %-14s %12s %10s %16s %s\n", "", "evaluations", "time (s)", "chi2 per point", "parameters");
  std::printf("  %-14s %12d %10.3f %16.8f %.4f %.4f %.4f %.4f\n", "fit (amoeba)", evaluations, ours_time,
              chi, params[0], params[1], params[2], params[3]);
  std::printf("  %-14s %12ld %10.3f %16.8f %.4f %.4f %.4f %.4f\n", "GSL nmsimplex2", g_gsl_evaluations,
              gsl_time, gsl_chi, gsl_vector_get(s->x, 0), gsl_vector_get(s->x, 1),
              gsl_vector_get(s->x, 2), gsl_vector_get(s->x, 3));
  std::printf("  chi2 per point, ours / GSL = %.6f\n", chi / gsl_chi);

  // Time per evaluation: the library's pass over the table against a plain loop
  // with the same model written inline, over the same points with the same
  // parameters.
  const int kRepeats = argc > 1 ? std::max(1, std::atoi(argv[1])) : 4000;
  const double p[4] = {params[0], params[1], params[2], params[3]};
  // For information: a loop calling the same model through its function pointer.
  std::vector<CVector<double>> rows(kPoints, CVector<double>(2));
  for (int i = 0; i < kPoints; ++i) {
    rows[i][0] = table.x[i];
    rows[i][1] = table.y[i];
  }
  FitFunc volatile func = model;
  std::vector<double> ours_us, inline_us, pointer_us;
  for (int pass = 0; pass < 7; ++pass) {
    ours_us.push_back(
        bench::time_calls([&](size_t) { return calc_chi_messdaten(nullptr, data, model, params); }, kRepeats) /
        kRepeats * 1e6);
    inline_us.push_back(bench::time_calls([&](size_t) { return hand_loop(table, p); }, kRepeats) / kRepeats * 1e6);
    pointer_us.push_back(bench::time_calls(
                             [&](size_t) {
                               double sum = 0;
                               for (int i = 0; i < kPoints; ++i) sum += func(nullptr, rows[i], params);
                               return sum;
                             },
                             kRepeats) /
                         kRepeats * 1e6);
  }
  const double per_ours = bench::median(ours_us), per_inline = bench::median(inline_us);
  std::printf("Time per evaluation: library %.2f us, the model inlined into a plain loop %.2f us, "
              "ratio (inlined / library) %.2f\n",
              per_ours, per_inline, per_inline / per_ours);
  std::printf("  (a loop calling the model through its function pointer: %.2f us)\n", bench::median(pointer_us));
  bench::summary({bench::text("fit: one evaluation, %d points", kPoints), "the model inlined into a plain loop",
                  bench::text("%.2f us", per_inline), bench::text("%.2f us", per_ours), per_inline / per_ours, NAN,
                  "", "-"});

  gsl_multimin_fminimizer_free(s);
  gsl_vector_free(start);
  gsl_vector_free(step);
  return 0;
}
