// Times the point layer's reader making every point of a scan, with the columns
// the Python package's arrays hold, so that bench/python_read_points.py can put
// the package's read_points beside it in the same run. With --dump FILE it also
// writes those columns, point by point, for the package's tests to compare.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <exception>

#include "kvr_decode/cloud/point_reader.h"
#include "kvr_decode/cloud/scan.h"

int main(int argc, char** argv) {
  if (argc != 2 && !(argc == 4 && std::strcmp(argv[2], "--dump") == 0)) {
    std::fprintf(stderr, "usage: kvr_point_reader_timer SCAN [--dump FILE]\n");
    return 2;
  }
  try {
    kvr::cloud::Scan scan(argv[1]);
    scan.map();  // built before the clock starts, as the Python side does
    kvr::cloud::Selection selection;
    selection.columns = kvr::cloud::kAllColumns & ~kvr::cloud::kCountColumns;
    std::FILE* dump = argc == 4 ? std::fopen(argv[3], "wb") : nullptr;
    if (argc == 4 && dump == nullptr) {
      std::perror(argv[3]);
      return 1;
    }
    const auto start = std::chrono::steady_clock::now();
    kvr::cloud::PointReader reader(scan, selection);
    kvr::cloud::PointBatch batch;
    std::uint64_t points = 0;
    double sum = 0.0;  // keeps the reads from being optimised away
    while (reader.next(batch)) {
      points += batch.size();
      if (!batch.empty()) sum += batch.x()[0];
      for (std::size_t i = 0; dump != nullptr && i < batch.size(); ++i) {
        // x y z time intensity line shot: enough to show every point the same
        const double v[4] = {batch.x()[i], batch.y()[i], batch.z()[i], batch.time()[i]};
        const std::int64_t w[3] = {batch.intensity()[i], batch.line()[i],
                                   static_cast<std::int64_t>(batch.shotIndex()[i])};
        if (std::fwrite(v, sizeof v, 1, dump) != 1 || std::fwrite(w, sizeof w, 1, dump) != 1) {
          std::perror(argv[3]);
          return 1;
        }
      }
    }
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    if (dump != nullptr && std::fclose(dump) != 0) {
      std::perror(argv[3]);
      return 1;
    }
    std::printf("%llu points %.6f seconds (%g)\n", static_cast<unsigned long long>(points), seconds, sum * 0.0);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
  return 0;
}
