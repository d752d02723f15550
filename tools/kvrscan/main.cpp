#include "app.h"

int main(int argc, char** argv) { return kvrscan::RunTool(argc, argv); }
