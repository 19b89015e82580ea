// fitdata: fits y = a*exp(-b*x) + c*x + d to a measurement file.
//
//   fitdata FILE [SEED]
//
// FILE holds one measurement per line: "x y" (blank lines and lines starting
// with '#' are skipped). Prints the fitted parameters, the score evaluations
// spent and the mean squared residual per measurement. The search is
// randomised; SEED (default 1) makes it repeatable.
#include <zqmath/amoeba.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

double model(void*, const CVector<double>& m, const CVector<double>& p) {
  const double x = m(0);
  const double r = p(0) * std::exp(-p(1) * x) + p(2) * x + p(3) - m(1);
  return r * r;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 2) {
    std::fputs("usage: fitdata FILE [SEED]\n", stderr);
    return 2;
  }
  std::ifstream in(argv[1]);
  if (!in) {
    std::fprintf(stderr, "fitdata: cannot read %s\n", argv[1]);
    return 1;
  }
  std::vector<std::pair<double, double>> points;
  std::string line;
  while (std::getline(in, line)) {
    if (line.empty() || line[0] == '#') continue;
    std::istringstream fields(line);
    double x, y;
    if (fields >> x >> y) points.emplace_back(x, y);
  }
  if (points.empty()) {
    std::fprintf(stderr, "fitdata: no measurements in %s\n", argv[1]);
    return 1;
  }
  CMatrix<double> data(static_cast<int>(points.size()), 2);
  for (size_t i = 0; i < points.size(); ++i) {
    data(static_cast<int>(i), 0) = points[i].first;
    data(static_cast<int>(i), 1) = points[i].second;
  }
  std::srand(argc > 2 ? static_cast<unsigned>(std::atoi(argv[2])) : 1u);
  CVector<double> params(4);
  params.clear();
  int evaluations = 0;
  double chi = 0;
  fit(nullptr, data, model, params, &evaluations, &chi);
  std::printf("a = %.6f\nb = %.6f\nc = %.6f\nd = %.6f\n", params[0], params[1], params[2], params[3]);
  std::printf("%zu measurements, %d evaluations, mean score %.6g\n", points.size(), evaluations, chi);
  return 0;
}
