#include "app.h"
#include "file_access.h"

int main(int argc, char** argv) {
  // An interrupted export, render or map leaves no temporary file behind.
  kvr::cloud::RemoveUnfinishedOutputsOnSignal();
  return kvrscan::RunTool(argc, argv);
}
