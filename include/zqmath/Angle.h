// An angle in radians with degree conversions and normalisation.
#ifndef ZQMATH_ANGLE_H
#define ZQMATH_ANGLE_H

#include <cmath>

#include "zqcommon/export.h"

// A plain value: an angle held in radians.
class ZQ_EXPORT Angle {
 public:
  static constexpr double kPi = 3.14159265358979323846;

  constexpr Angle() = default;
  static constexpr Angle Radians(double r) { return Angle(r); }
  static constexpr Angle Degrees(double d) { return Angle(d * kPi / 180.0); }

  constexpr double rad() const { return r_; }
  constexpr double deg() const { return r_ * 180.0 / kPi; }
  // The same direction in [0, 2 pi) and in [-pi, pi).
  Angle Normalized() const {
    double r = std::fmod(r_, 2 * kPi);
    if (r < 0) r += 2 * kPi;
    return Angle(r >= 2 * kPi ? 0.0 : r);
  }
  Angle Signed() const {
    const double r = Normalized().r_;
    return Angle(r >= kPi ? r - 2 * kPi : r);
  }

  constexpr Angle operator+(Angle o) const { return Angle(r_ + o.r_); }
  constexpr Angle operator-(Angle o) const { return Angle(r_ - o.r_); }
  constexpr Angle operator-() const { return Angle(-r_); }
  constexpr Angle operator*(double f) const { return Angle(r_ * f); }

 private:
  constexpr explicit Angle(double r) : r_(r) {}
  double r_ = 0.0;
};

#endif
