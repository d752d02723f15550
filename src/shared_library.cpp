// The shared library is the core archive taken whole (see CMakeLists.txt); this
// translation unit only gives the target a source of its own.
