# Install rules and package files (headers, libCorvane.so.1 with its links,
# pkg-config and CMake package files).
