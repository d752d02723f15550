#include <cstdio>
#include <exception>

#include <kvr_decode/cloud/error.h>
#include <kvr_decode/cloud/point_reader.h>
#include <kvr_decode/cloud/scan.h>

// Reads every point of the scan named on the command line and prints how many
// there are; a refused file prints the layer's message and exits 1.
int main(int argc, char** argv) {
  if (argc != 2) return 2;
  try {
    const kvr::cloud::Scan scan(argv[1]);
    kvr::cloud::PointReader reader(scan);
    kvr::cloud::PointBatch batch;
    unsigned long long points = 0;
    while (reader.next(batch)) points += batch.size();
    std::printf("%llu\n", points);
    return 0;
  } catch (const kvr::cloud::Error& error) {
    std::fprintf(stderr, "%s\n", error.what());
    return 1;
  }
}
