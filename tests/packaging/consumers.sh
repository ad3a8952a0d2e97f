# Builds and runs the consumers against an installed library, by each way of finding it.

tree=$(realpath "$(dirname "${BASH_SOURCE[0]}")/../..")
version=$(sed -n 's/^project(oxpliv VERSION \([0-9.]*\).*/\1/p' "$tree/CMakeLists.txt")
soname=liboxpliv.so.${version%%.*}

# What a consumer says when it works, and nothing else.
run_consumer() {
  local said
  said=$("$@")
  [ "$said" = "the library works" ] || { echo "$*: $said"; return 1; }
}

# build_consumers PREFIX LIBDIR WORK: the prefix and the directory of libraries in it, and a folder to build in.
build_consumers() {
  local prefix=$1 libdir=$2 work=$3 flags
  local sources
  sources=$(dirname "${BASH_SOURCE[0]}")/consumer

  cmake -S "$sources" -B "$work/cmake" -DCMAKE_PREFIX_PATH="$prefix" -Doxpliv_ROOT="$prefix"
  cmake --build "$work/cmake"
  run_consumer "$work/cmake/consumer_c"
  run_consumer "$work/cmake/consumer_cpp"

  flags=$(PKG_CONFIG_PATH=$libdir/pkgconfig pkg-config --cflags --libs 'oxpliv >= 1.0')
  # Words on purpose: flags are a list.
  # shellcheck disable=SC2086
  cc -std=c99 "$sources/consumer.c" -o "$work/consumer_c" $flags
  # shellcheck disable=SC2086
  c++ "$sources/consumer.cpp" -o "$work/consumer_cpp" $flags
  LD_LIBRARY_PATH=$libdir run_consumer "$work/consumer_c"
  LD_LIBRARY_PATH=$libdir run_consumer "$work/consumer_cpp"
  readelf -d "$work/consumer_c" | grep -q 'NEEDED.*\['"$soname"'\]' || { echo "not linked by SONAME"; return 1; }
}
