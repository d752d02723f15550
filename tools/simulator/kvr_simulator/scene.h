#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <vector>

#include "kvr_simulator/geometry.h"

// The world a simulated scanner looks at: a room seen from inside, with
// openings that let rays out, and solid boxes standing in it. Room coordinates:
// x along the length, y along the width, z up, the origin in a floor corner.
namespace kvr::sim {

struct RoomSize {
  double length = 8.0;  // m, along x
  double width = 6.0;   // m, along y
  double height = 3.0;  // m, along z
};

// A solid axis-aligned box: furniture, a tripod leg.
struct Box {
  Vec3 min, max;
  double reflectance = 0.5;
};

// A rectangular hole in a wall; rays through it hit nothing. Walls: 0 at x = 0,
// 1 at x = length, 2 at y = 0, 3 at y = width. u runs along the wall (y on walls
// 0 and 1, x on walls 2 and 3), z up.
struct Opening {
  int wall = 0;
  double u0 = 0.0, u1 = 0.0, z0 = 0.0, z1 = 0.0;
};

struct Scene {
  RoomSize room;
  double wallReflectance = 0.8;
  double floorReflectance = 0.35;
  double ceilingReflectance = 0.85;
  std::vector<Opening> openings;
  std::vector<Box> boxes;
  Vec3 scanner;  // the scanner's optical centre
};

// A furnished room: an open door and a window, a table, a cabinet against a
// wall, a few crates, and the scanner on a tripod near the middle. Pieces that
// do not fit a small room are left out.
Scene FurnishedRoom(std::uint64_t seed, const RoomSize& room);

struct SurfaceHit {
  double distance = 0.0;  // m along the ray
  double cosIncidence = 1.0;
  double reflectance = 0.0;
};

// The laser beam: a cone from an exit aperture.
struct Beam {
  double exitRadius = 0.0015;      // m
  double divergence = 0.0005;      // full angle, rad
  double minimumSeparation = 0.5;  // m between two returns the receiver can tell apart
};

// One echo of a beam; share is the part of the beam's footprint that made it.
struct BeamReturn {
  double distance = 0.0;
  double cosIncidence = 1.0;
  double reflectance = 0.0;
  double share = 1.0;
};

inline constexpr int kMaxReturns = 4;

class RayCaster {
 public:
  RayCaster(const Scene& scene, const Beam& beam);

  // The nearest surface along a ray from inside the room, or nothing when the
  // ray leaves through an opening. `direction` must have unit length.
  std::optional<SurfaceHit> Cast(Vec3 origin, Vec3 direction) const;

  // The echoes of a beam, nearest first: one where its footprint lies on one
  // surface, more where the footprint straddles an edge with depth behind it,
  // none where it all leaves the room. Returns how many were written.
  int BeamReturns(Vec3 origin, Vec3 direction, std::array<BeamReturn, kMaxReturns>& out) const;

 private:
  struct Trace;
  Trace TraceRay(Vec3 origin, Vec3 direction, bool detectEdges) const;
  int SampleFootprint(Vec3 origin, Vec3 direction, std::array<BeamReturn, kMaxReturns>& out) const;
  double FootprintRadius(double distance) const { return beam_.exitRadius + 0.5 * beam_.divergence * distance; }

  // Directions from the scanner within which a box can be met.
  struct Cone {
    Vec3 axis;
    double cosine;
  };

  Scene scene_;
  Beam beam_;
  double inflation_;  // how far beside a box a beam may still touch it
  std::vector<Cone> cones_;
};

}  // namespace kvr::sim
