#include "kvr_simulator/scene.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "kvr_simulator/random.h"

namespace kvr::sim {

namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// Exact zeros would make 0 x infinity in the slab tests.
double NonZero(double c) { return std::abs(c) < 1e-12 ? std::copysign(1e-12, c) : c; }

double Axis(Vec3 v, int axis) { return axis == 0 ? v.x : axis == 1 ? v.y : v.z; }

// Where a ray from outside meets a box: the entry distance and the axis of the
// face it enters through.
inline bool EnterBox(const Vec3& min, const Vec3& max, const Vec3& o, const Vec3& inverse, double& enter, int& axis) {
  const double x1 = (min.x - o.x) * inverse.x, x2 = (max.x - o.x) * inverse.x;
  const double y1 = (min.y - o.y) * inverse.y, y2 = (max.y - o.y) * inverse.y;
  const double z1 = (min.z - o.z) * inverse.z, z2 = (max.z - o.z) * inverse.z;
  enter = std::min(x1, x2);
  axis = 0;
  if (const double y = std::min(y1, y2); y > enter) {
    enter = y;
    axis = 1;
  }
  if (const double z = std::min(z1, z2); z > enter) {
    enter = z;
    axis = 2;
  }
  const double leave = std::min({std::max(x1, x2), std::max(y1, y2), std::max(z1, z2)});
  return enter <= leave && enter > 0.0;
}

// Distance from a point to the border of a rectangle, from inside or outside.
double DistanceToBorder(double u, double z, const Opening& o) {
  const bool inside = u >= o.u0 && u <= o.u1 && z >= o.z0 && z <= o.z1;
  if (inside) return std::min({u - o.u0, o.u1 - u, z - o.z0, o.z1 - z});
  const double du = std::max({o.u0 - u, 0.0, u - o.u1});
  const double dz = std::max({o.z0 - z, 0.0, z - o.z1});
  return std::sqrt(du * du + dz * dz);
}

// A footprint of radius r on a surface seen at this incidence is stretched by
// 1 / cos; twice that leaves margin for the approximation.
double EdgeMargin(double footprintRadius, double cosIncidence) {
  return 2.0 * footprintRadius / std::max(cosIncidence, 0.1);
}

}  // namespace

struct RayCaster::Trace {
  bool hit = false;
  SurfaceHit surface;
  bool nearEdge = false;
};

RayCaster::RayCaster(const Scene& scene, const Beam& beam) : scene_(scene), beam_(beam) {
  const RoomSize& r = scene.room;
  const double diagonal = std::sqrt(r.length * r.length + r.width * r.width + r.height * r.height);
  inflation_ = 2.0 * (beam.exitRadius + 0.5 * beam.divergence * diagonal);
  // Seen from the scanner, each box (with the margins above, and the exit
  // aperture for rays that start beside the optical centre) fits in a cone;
  // rays outside it cannot touch the box.
  for (const Box& box : scene.boxes) {
    const Vec3 centre = 0.5 * (box.min + box.max);
    const double radius = 0.5 * Length(box.max - box.min) + inflation_ + beam.exitRadius;
    const Vec3 toCentre = centre - scene.scanner;
    const double distance = Length(toCentre);
    if (distance <= radius * 1.0001) {
      cones_.push_back({{0, 0, 0}, -2.0});
    } else {
      const double sine = radius / distance;
      cones_.push_back({(1.0 / distance) * toCentre, std::sqrt(1.0 - sine * sine) - 1e-9});
    }
  }
}

RayCaster::Trace RayCaster::TraceRay(Vec3 o, Vec3 d, bool detectEdges) const {
  const Vec3 inverse{1.0 / NonZero(d.x), 1.0 / NonZero(d.y), 1.0 / NonZero(d.z)};
  const RoomSize& room = scene_.room;

  // The room is seen from inside: the ray leaves it through the nearest face.
  const double size[3] = {room.length, room.width, room.height};
  double exit = kInfinity;
  int exitAxis = 0;
  for (int a = 0; a < 3; ++a) {
    const double toward = Axis(inverse, a);  // its sign is the direction's, also for a zero component
    const double t = ((toward > 0.0 ? size[a] : 0.0) - Axis(o, a)) * toward;
    if (t < exit) {
      exit = t;
      exitAxis = a;
    }
  }
  Trace trace;
  const Vec3 p = o + exit * d;
  trace.surface.distance = exit;
  trace.surface.cosIncidence = std::abs(Axis(d, exitAxis));
  if (exitAxis == 2) {
    trace.surface.reflectance = inverse.z < 0.0 ? scene_.floorReflectance : scene_.ceilingReflectance;
    trace.hit = true;
  } else {
    trace.surface.reflectance = scene_.wallReflectance;
    trace.hit = true;
    const int wall = exitAxis == 0 ? (inverse.x < 0.0 ? 0 : 1) : (inverse.y < 0.0 ? 2 : 3);
    const double u = exitAxis == 0 ? p.y : p.x;
    const double margin = EdgeMargin(FootprintRadius(exit), trace.surface.cosIncidence);
    for (const Opening& opening : scene_.openings) {
      if (opening.wall != wall) continue;
      if (u >= opening.u0 && u <= opening.u1 && p.z >= opening.z0 && p.z <= opening.z1) trace.hit = false;
      if (detectEdges && DistanceToBorder(u, p.z, opening) < margin) trace.nearEdge = true;
    }
  }

  // The nearest box in front of the room's surface. A box that only the
  // inflated test touches lies beside the ray, within reach of the footprint.
  double nearestBox = exit;
  int boxIndex = -1, boxAxis = 0;
  double nearestMiss = kInfinity;
  const Vec3 offset = o - scene_.scanner;
  const bool fromScanner = Dot(offset, offset) <= beam_.exitRadius * beam_.exitRadius * 1.0001;
  for (std::size_t i = 0; i < scene_.boxes.size(); ++i) {
    if (fromScanner && Dot(d, cones_[i].axis) < cones_[i].cosine) continue;
    const Box& box = scene_.boxes[i];
    double enter;
    int axis;
    if (detectEdges) {
      const Vec3 grow{inflation_, inflation_, inflation_};
      if (!EnterBox(box.min - grow, box.max + grow, o, inverse, enter, axis) || enter >= nearestBox) continue;
      const double inflatedEnter = enter;
      if (!EnterBox(box.min, box.max, o, inverse, enter, axis)) {
        nearestMiss = std::min(nearestMiss, inflatedEnter);
        continue;
      }
    } else if (!EnterBox(box.min, box.max, o, inverse, enter, axis)) {
      continue;
    }
    if (enter < nearestBox) {
      nearestBox = enter;
      boxIndex = static_cast<int>(i);
      boxAxis = axis;
    }
  }
  if (boxIndex >= 0) {
    const Box& box = scene_.boxes[static_cast<std::size_t>(boxIndex)];
    trace.hit = true;
    trace.surface = {nearestBox, std::abs(Axis(d, boxAxis)), box.reflectance};
    trace.nearEdge = false;
    if (detectEdges) {
      const Vec3 q = o + nearestBox * d;
      const double margin = EdgeMargin(FootprintRadius(nearestBox), trace.surface.cosIncidence);
      for (int a = 0; a < 3; ++a) {
        if (a == boxAxis) continue;
        const double inside = std::min(Axis(q, a) - Axis(box.min, a), Axis(box.max, a) - Axis(q, a));
        if (inside < margin) trace.nearEdge = true;
      }
    }
  }
  if (nearestMiss < (trace.hit ? trace.surface.distance : exit)) trace.nearEdge = true;
  return trace;
}

std::optional<SurfaceHit> RayCaster::Cast(Vec3 origin, Vec3 direction) const {
  const Trace trace = TraceRay(origin, direction, false);
  if (!trace.hit) return std::nullopt;
  return trace.surface;
}

int RayCaster::BeamReturns(Vec3 origin, Vec3 direction, std::array<BeamReturn, kMaxReturns>& out) const {
  const Trace trace = TraceRay(origin, direction, true);
  if (trace.nearEdge) return SampleFootprint(origin, direction, out);
  if (!trace.hit) return 0;
  out[0] = {trace.surface.distance, trace.surface.cosIncidence, trace.surface.reflectance, 1.0};
  return 1;
}

int RayCaster::SampleFootprint(Vec3 o, Vec3 d, std::array<BeamReturn, kMaxReturns>& out) const {
  // The centre and two rings of sub-rays spread over the beam's cone; each
  // carries an equal part of the energy.
  constexpr int kInner = 6, kOuter = 10, kSamples = 1 + kInner + kOuter;
  const Vec3 e1 = Normalized(Cross(d, std::abs(d.z) < 0.9 ? Vec3{0, 0, 1} : Vec3{1, 0, 0}));
  const Vec3 e2 = Cross(d, e1);
  std::array<SurfaceHit, kSamples> hits;
  int hitCount = 0;
  for (int s = 0; s < kSamples; ++s) {
    const bool inner = s <= kInner;
    const double fraction = s == 0 ? 0.0 : inner ? 0.5 : 1.0;
    const double angle = 2.0 * kPi * (inner ? s - 1 : s - 1 - kInner) / (inner ? kInner : kOuter);
    const Vec3 offset = fraction * (std::cos(angle) * e1 + std::sin(angle) * e2);
    const Vec3 subOrigin = o + beam_.exitRadius * offset;
    const Vec3 subDirection = Normalized(d + (0.5 * beam_.divergence) * offset);
    if (const auto hit = Cast(subOrigin, subDirection)) hits[static_cast<std::size_t>(hitCount++)] = *hit;
  }
  std::sort(hits.begin(), hits.begin() + hitCount,
            [](const SurfaceHit& a, const SurfaceHit& b) { return a.distance < b.distance; });

  // Echoes closer together than the receiver can separate merge into one.
  int returns = 0;
  for (int first = 0; first < hitCount && returns < kMaxReturns;) {
    int last = first + 1;
    while (last < hitCount && hits[last].distance - hits[last - 1].distance < beam_.minimumSeparation) ++last;
    BeamReturn r{0.0, 0.0, 0.0, static_cast<double>(last - first) / kSamples};
    for (int i = first; i < last; ++i) {
      r.distance += hits[i].distance;
      r.cosIncidence += hits[i].cosIncidence;
      r.reflectance += hits[i].reflectance;
    }
    const double n = last - first;
    r.distance /= n;
    r.cosIncidence /= n;
    r.reflectance /= n;
    out[static_cast<std::size_t>(returns++)] = r;
    first = last;
  }
  return returns;
}

namespace {

// Places furniture on the floor without overlaps, away from the tripod.
class FloorPlan {
 public:
  FloorPlan(const RoomSize& room, Vec3 scanner) : room_(room), scanner_(scanner) {}

  // A footprint w x d at a random free spot (against a wall when asked), or nothing.
  std::optional<std::array<double, 4>> Place(Draws& draws, double w, double d, bool againstWall) {
    for (int attempt = 0; attempt < 60; ++attempt) {
      const bool turned = draws.unit() < 0.5;
      const double sx = turned ? d : w, sy = turned ? w : d;
      if (sx > room_.length - 0.2 || sy > room_.width - 0.2) continue;
      double x0 = draws.uniform(0.1, room_.length - sx - 0.1);
      double y0 = draws.uniform(0.1, room_.width - sy - 0.1);
      if (againstWall) {
        switch (draws.below(4)) {
          case 0:
            x0 = 0.0;
            break;
          case 1:
            x0 = room_.length - sx;
            break;
          case 2:
            y0 = 0.0;
            break;
          default:
            y0 = room_.width - sy;
            break;
        }
      }
      const std::array<double, 4> f{x0, y0, x0 + sx, y0 + sy};
      if (!Free(f)) continue;
      taken_.push_back(f);
      return f;
    }
    return std::nullopt;
  }

 private:
  bool Free(const std::array<double, 4>& f) const {
    // Keep clear of the tripod (and of the near field of the scanner).
    constexpr double kClearance = 1.0;
    if (f[0] < scanner_.x + kClearance && f[2] > scanner_.x - kClearance && f[1] < scanner_.y + kClearance &&
        f[3] > scanner_.y - kClearance) {
      return false;
    }
    for (const auto& t : taken_) {
      if (f[0] < t[2] + 0.05 && f[2] > t[0] - 0.05 && f[1] < t[3] + 0.05 && f[3] > t[1] - 0.05) return false;
    }
    return true;
  }

  RoomSize room_;
  Vec3 scanner_;
  std::vector<std::array<double, 4>> taken_;
};

Opening WallOpening(Draws& draws, const RoomSize& room, int wall, double width, double z0, double z1) {
  const double wallLength = wall < 2 ? room.width : room.length;
  width = std::min(width, 0.4 * wallLength);
  const double u0 = draws.uniform(0.1 * wallLength, 0.9 * wallLength - width);
  return {wall, u0, u0 + width, z0, z1};
}

}  // namespace

Scene FurnishedRoom(std::uint64_t seed, const RoomSize& room) {
  Draws draws(seed, kScenePurpose);
  Scene scene;
  scene.room = room;
  scene.scanner = {room.length * draws.uniform(0.42, 0.58), room.width * draws.uniform(0.42, 0.58),
                   std::min(1.55, room.height - 0.45) + draws.uniform(-0.05, 0.05)};

  // An open door and a window on two different walls.
  const int doorWall = static_cast<int>(draws.below(4));
  const int windowWall = (doorWall + 1 + static_cast<int>(draws.below(3))) % 4;
  scene.openings.push_back(WallOpening(draws, room, doorWall, 0.9, 0.0, std::min(2.05, room.height - 0.15)));
  scene.openings.push_back(
      WallOpening(draws, room, windowWall, 1.4, std::min(0.9, 0.35 * room.height), std::min(2.1, room.height - 0.3)));

  // The tripod: three thin dark legs under the scanner.
  const double legTop = scene.scanner.z - 0.3;
  const double yaw = draws.uniform(0.0, 2.0 * kPi / 3.0);
  for (int leg = 0; leg < 3; ++leg) {
    const double a = yaw + leg * 2.0 * kPi / 3.0;
    const double x = scene.scanner.x + 0.32 * std::cos(a), y = scene.scanner.y + 0.32 * std::sin(a);
    scene.boxes.push_back({{x - 0.015, y - 0.015, 0.0}, {x + 0.015, y + 0.015, legTop}, 0.08});
  }

  FloorPlan plan(room, scene.scanner);
  // A table: a top on four legs, so that beams see the floor beneath it.
  if (const auto f = plan.Place(draws, 1.6, 0.9, false)) {
    const double reflectance = draws.uniform(0.3, 0.6);
    scene.boxes.push_back({{(*f)[0], (*f)[1], 0.72}, {(*f)[2], (*f)[3], 0.76}, reflectance});
    for (int corner = 0; corner < 4; ++corner) {
      const double x = corner % 2 == 0 ? (*f)[0] + 0.05 : (*f)[2] - 0.1;
      const double y = corner < 2 ? (*f)[1] + 0.05 : (*f)[3] - 0.1;
      scene.boxes.push_back({{x, y, 0.0}, {x + 0.05, y + 0.05, 0.72}, reflectance});
    }
  }
  // A tall cabinet against a wall.
  if (const auto f = plan.Place(draws, 1.2, 0.5, true)) {
    scene.boxes.push_back(
        {{(*f)[0], (*f)[1], 0.0}, {(*f)[2], (*f)[3], std::min(1.9, room.height - 0.3)}, draws.uniform(0.5, 0.8)});
  }
  // Crates, one of them with a smaller one on top.
  for (int crate = 0; crate < 4; ++crate) {
    const double side = draws.uniform(0.3, 0.8);
    const double height = draws.uniform(0.3, 0.8);
    const auto f = plan.Place(draws, side, side * draws.uniform(0.7, 1.0), false);
    if (!f) continue;
    const double reflectance = draws.uniform(0.2, 0.7);
    scene.boxes.push_back({{(*f)[0], (*f)[1], 0.0}, {(*f)[2], (*f)[3], height}, reflectance});
    if (crate == 0) {
      const double inset = 0.25 * ((*f)[2] - (*f)[0]);
      scene.boxes.push_back(
          {{(*f)[0] + inset, (*f)[1] + inset, height}, {(*f)[2] - inset, (*f)[3] - inset, height + 0.3}, reflectance});
    }
  }
  return scene;
}

}  // namespace kvr::sim
