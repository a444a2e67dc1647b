# Where the package finds libCorvane and the corvane executable. This copy,
# in the source tree, names nothing: the build tree's copy names the build
# directories, and the installed one the library and program directories
# relative to the package (see python/CMakeLists.txt).
LIBDIRS = []
BINDIRS = []
