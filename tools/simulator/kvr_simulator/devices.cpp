#include "kvr_simulator/devices.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <string>
#include <tuple>

#include "kvr_simulator/random.h"
#include "kvr_writers/camera_file_writer.h"
#include "kvr_writers/device_file_writer.h"
#include "kvr_writers/file_output.h"

namespace kvr::sim {

namespace {

constexpr double kDegreesPerRadian = 57.29577951308232;

// The inclinometer's calibration as the device file states it: single-precision
// values and two whole numbers.
struct Inclinometer {
  float sxx, syy, sxy, syx, offnomx, offnomy, bsroll, bspitch, bsheading;
  std::int32_t alpha;
  float beta, vref;
  std::int32_t pga;
};

std::string Shortest(float value) {
  char text[32];
  return std::string(text, std::to_chars(text, text + sizeof text, value).ptr);
}

Inclinometer DrawInclinometer(Draws& draws) {
  const auto f = [&draws](double low, double high) { return static_cast<float>(draws.uniform(low, high)); };
  return {.sxx = f(0.98, 1.02),
          .syy = f(0.98, 1.02),
          .sxy = f(-0.01, 0.01),
          .syx = f(-0.01, 0.01),
          .offnomx = f(-0.005, 0.005),
          .offnomy = f(-0.005, 0.005),
          .bsroll = f(-0.05, 0.05),
          .bspitch = f(-0.05, 0.05),
          .bsheading = f(-0.5, 0.5),
          .alpha = 65536,
          .beta = f(7.5, 8.5),
          .vref = 2.5f,
          .pga = 64};
}

std::string InclinometerText(const Inclinometer& c) {
  return writers::DeviceCalibrationText(
      std::vector<std::pair<std::string, std::string>>{{"sxx", Shortest(c.sxx)},
                                                       {"syy", Shortest(c.syy)},
                                                       {"sxy", Shortest(c.sxy)},
                                                       {"syx", Shortest(c.syx)},
                                                       {"offnomx", Shortest(c.offnomx)},
                                                       {"offnomy", Shortest(c.offnomy)},
                                                       {"bsroll", Shortest(c.bsroll)},
                                                       {"bspitch", Shortest(c.bspitch)},
                                                       {"bsheading", Shortest(c.bsheading)},
                                                       {"alpha", std::to_string(c.alpha)},
                                                       {"beta", Shortest(c.beta)},
                                                       {"vref", Shortest(c.vref)},
                                                       {"pga", std::to_string(c.pga)}});
}

// Raw readings that give the tilt back: the sensor is ratiometric, so the zero
// level (raw 3) and the reference (raw 4) may wander from reading to reading
// while the two axis channels (raw 1 and 2) follow them. The reference is large
// enough that one count moves the tilt by under 1e-7 degrees.
std::array<std::int32_t, 6> InclinometerRaw(const Inclinometer& c, double tiltX, double tiltY, Draws& draws,
                                            std::int32_t sequence) {
  const double sinX = std::sin(tiltX / kDegreesPerRadian), sinY = std::sin(tiltY / kDegreesPerRadian);
  // Undo the cross-axis matrix: the reader applies its inverse.
  const double x = static_cast<double>(c.sxx) * sinX + static_cast<double>(c.sxy) * sinY;
  const double y = static_cast<double>(c.syx) * sinX + static_cast<double>(c.syy) * sinY;
  const double k = 2.0 * static_cast<double>(c.vref) / c.pga;
  const std::int32_t zero = 19000 + static_cast<std::int32_t>(draws.below(2000));
  const std::int32_t reference = 8000000 + static_cast<std::int32_t>(draws.below(20000));
  const double base = static_cast<double>(zero) / c.alpha;
  const double scale = reference * static_cast<double>(c.beta);
  const auto channel = [&](double value, float offset) {
    return static_cast<std::int32_t>(std::llround(((value + offset) / k + base) * scale));
  };
  return {2200 + static_cast<std::int32_t>(draws.below(200)),
          channel(x, c.offnomx),
          channel(y, c.offnomy),
          zero,
          reference,
          sequence};
}

}  // namespace

DeviceTruth WriteDeviceFile(const std::filesystem::path& path, const ScanPlan& plan, const ClockTruth& clock,
                            std::uint64_t seed) {
  Draws draws(seed, kDevicePurpose);
  const Inclinometer inclinometer = DrawInclinometer(draws);
  writers::DeviceFileBuilder file(93);
  file.calibrationBlock(InclinometerText(inclinometer));
  file.calibrationBlock(writers::DeviceCalibrationText(std::vector<std::pair<std::string, std::string>>{
      {"xsf", Shortest(static_cast<float>(draws.uniform(0.95, 1.05)))},
      {"ysf", Shortest(static_cast<float>(draws.uniform(0.95, 1.05)))},
      {"xoff", Shortest(static_cast<float>(draws.uniform(-30.0, 30.0)))},
      {"yoff", Shortest(static_cast<float>(draws.uniform(-30.0, 30.0)))},
      {"declination", Shortest(static_cast<float>(draws.uniform(-8.0, 8.0)))}}));

  // Readings of the three kinds in time order: (time, type, sequence number).
  const auto ticksAt = [&clock](double seconds) {
    return static_cast<std::uint64_t>(static_cast<std::int64_t>(clock.firstShotTicks) +
                                      std::llround(seconds * clock.ticksPerSecond));
  };
  const double scanSeconds = static_cast<double>(clock.lastShotTicks - clock.firstShotTicks) / clock.ticksPerSecond;
  std::vector<std::tuple<std::uint64_t, int, std::uint32_t>> readings;
  const auto schedule = [&](int type, double first, double period) {
    std::uint32_t n = 0;
    for (double t = first; t <= scanSeconds + 0.5; t += period) readings.emplace_back(ticksAt(t), type, n++);
  };
  schedule(1, -0.5, 1.0);
  schedule(7, -0.2, 2.0);
  schedule(2, 0.1, 5.0);
  std::sort(readings.begin(), readings.end());

  DeviceTruth truth;
  truth.tiltXDegrees = plan.tiltXDegrees;
  truth.tiltYDegrees = plan.tiltYDegrees;
  for (const auto& [time, type, n] : readings) {
    Draws reading(seed, kDevicePurpose, 1 + time);
    if (type == 1) {
      file.reading(writers::DeviceReading1{time, InclinometerRaw(inclinometer, plan.tiltXDegrees, plan.tiltYDegrees,
                                                                 reading, static_cast<std::int32_t>(n))});
      ++truth.inclinometerReadings;
    } else if (type == 7) {
      writers::DeviceReading7 r{.time = time, .d = reading.bits()};
      r.e[0] = n;
      for (std::size_t i = 1; i < r.e.size(); ++i) r.e[i] = static_cast<std::uint32_t>(reading.below(65536));
      file.reading(r);
      truth.type7Times.push_back(time);
    } else {
      file.reading(
          writers::DeviceReading2{.time = time, .a = reading.bits(), .b = reading.bits(), .c = time, .value = n});
      truth.type2Times.push_back(time);
    }
  }
  for (const std::uint64_t t2 : truth.type2Times) {
    std::int32_t nearest = -1;
    std::uint64_t best = 0;
    for (std::size_t i = 0; i < truth.type7Times.size(); ++i) {
      const std::uint64_t t7 = truth.type7Times[i];
      const std::uint64_t d = t2 > t7 ? t2 - t7 : t7 - t2;
      if (nearest < 0 || d < best) {
        nearest = static_cast<std::int32_t>(i);
        best = d;
      }
    }
    truth.nearestType7.push_back(nearest >= 0 && best < 5 * 50000000ull ? nearest : -1);
  }
  writers::WriteBinaryFile(path, file.bytes());
  return truth;
}

std::vector<CameraImage> WriteCameraFile(const std::filesystem::path& path, const ScanPlan& plan,
                                         const RayCaster& caster, std::uint32_t count) {
  writers::CameraFileBuilder file(
      {.timeStampFlag = 1, .text = "camera=simulated\nwidth=64\nheight=48\nformat=PGM\n", .headerValue = count});
  std::vector<CameraImage> images;
  for (std::uint32_t i = 0; i < count; ++i) {
    // The camera looks along the pan direction at the moment it fires.
    const auto shot = static_cast<std::uint64_t>((i + 0.5) / count * static_cast<double>(plan.totalShots));
    const double pan = plan.panStartDegrees + static_cast<double>(shot) * plan.panDegreesPerShot;
    CameraImage image;
    image.timeStamp = plan.firstShotTicks + shot * plan.shotPeriodTicks;
    image.values = {
        i,    kImageWidth, kImageHeight, static_cast<std::uint32_t>(std::fmod(pan, 360.0) / kPanDegreesPerCount),
        4000, 100};
    const std::string head = "P5\n" + std::to_string(kImageWidth) + " " + std::to_string(kImageHeight) + "\n255\n";
    image.bytes.assign(head.begin(), head.end());
    for (std::uint32_t row = 0; row < kImageHeight; ++row) {
      for (std::uint32_t column = 0; column < kImageWidth; ++column) {
        // 60 by 45 degrees of view.
        const double azimuth = Radians(pan + 60.0 * (0.5 - (column + 0.5) / kImageWidth));
        const double elevation = Radians(45.0 * (0.5 - (row + 0.5) / kImageHeight));
        const Vec3 ray{std::cos(elevation) * std::cos(azimuth), std::cos(elevation) * std::sin(azimuth),
                       std::sin(elevation)};
        const auto hit = caster.Cast(plan.origin, plan.scannerToRoom(ray));
        double shade = 0.9;  // daylight through the openings
        if (hit) {
          shade = hit->reflectance * (0.2 + 0.8 * hit->cosIncidence) /
                  (1.0 + (hit->distance / 8.0) * (hit->distance / 8.0));
        }
        image.bytes.push_back(static_cast<std::uint8_t>(std::clamp(std::lround(255.0 * shade), 0L, 255L)));
      }
    }
    file.record({.timeStamp = image.timeStamp, .values = image.values, .image = image.bytes});
    images.push_back(std::move(image));
  }
  writers::WriteBinaryFile(path, file.bytes());
  return images;
}

}  // namespace kvr::sim
