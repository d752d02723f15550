#pragma once

#include <cmath>

namespace kvr::sim {

struct Vec3 {
  double x = 0.0, y = 0.0, z = 0.0;
};

constexpr Vec3 operator+(Vec3 a, Vec3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
constexpr Vec3 operator-(Vec3 a, Vec3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
constexpr Vec3 operator*(double s, Vec3 v) { return {s * v.x, s * v.y, s * v.z}; }
constexpr double Dot(Vec3 a, Vec3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
constexpr Vec3 Cross(Vec3 a, Vec3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
inline double Length(Vec3 v) { return std::sqrt(Dot(v, v)); }
inline Vec3 Normalized(Vec3 v) { return (1.0 / Length(v)) * v; }

inline constexpr double kPi = 3.14159265358979323846;
constexpr double Radians(double degrees) { return degrees * (kPi / 180.0); }

// A rotation as its three rows.
struct Rotation {
  Vec3 row[3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
  constexpr Vec3 operator()(Vec3 v) const { return {Dot(row[0], v), Dot(row[1], v), Dot(row[2], v)}; }
};

}  // namespace kvr::sim
