#!/usr/bin/env bats
# The library as those get it who build on it: an unchanged binary interface, an installed tree, and a
# host's guide whose program works. BUILD is the build tree, CXX its compiler.

bats_require_minimum_version 1.5.0

setup_file() {
    export PREFIX=$BATS_FILE_TMPDIR/prefix
    cmake --install "$BUILD" --prefix "$PREFIX"
    export PKG_CONFIG_PATH=$(dirname "$(find "$PREFIX" -name golt.pc)")
    export LD_LIBRARY_PATH=$(dirname "$PKG_CONFIG_PATH")
    export TOP=$BATS_TEST_DIRNAME/..
}

setup() { cd "$BATS_TEST_TMPDIR"; }

# golt.abi is what `./dev abi` wrote. Whoever means to change the interface runs it again.
@test "Keeps the binary interface that golt.abi describes" {
    abidiff "$TOP/golt.abi" "$(readlink -f "$LD_LIBRARY_PATH/libgolt.so")"
}

# Ten lines that somebody else writes.
consumer() {
    cat >consumer.cpp <<'CPP'
#include <cstdio>

#include "libgolt.h"

int main()
{
    PELA::IRemuxerDriver driver = GOLT_CreateRemuxerDriver();
    const bool knows_capitals = driver->createDemuxer("MKV", nullptr, 0) != nullptr;
    GOLT_DestroyRemuxerDriver();
    return knows_capitals || std::printf("%s\n", GOLT_version()) <= 0;
}
CPP
}

@test "Serves a program that finds it by pkg-config" {
    consumer
    [ "$(pkg-config --modversion golt)" = 0.8 ]
    "$CXX" consumer.cpp $(pkg-config --cflags --libs golt) -o consumer
    ./consumer | grep ' v0\.8$'
}

# consumer_by_cmake TARGET: builds it with a target of the CMake package, and runs it.
consumer_by_cmake() {
    consumer
    cat >CMakeLists.txt <<CMAKE
cmake_minimum_required(VERSION 3.16)
project(consumer CXX)
find_package(golt 0.8 REQUIRED)
add_executable(consumer consumer.cpp)
target_link_libraries(consumer $1)
CMAKE
    cmake -G Ninja -DCMAKE_CXX_COMPILER="$CXX" -DCMAKE_PREFIX_PATH="$PREFIX" .
    cmake --build .
    LD_LIBRARY_PATH='' ./consumer | grep ' v0\.8$'
}

# The tree can be moved as a whole.
@test "Serves a program that finds it by CMake" {
    consumer_by_cmake golt::golt
}

@test "Serves a program that links all of the library in" {
    consumer_by_cmake golt::golt_archive
    # Its other names are its own: the host may have the same.
    nm --extern-only --defined-only "$LD_LIBRARY_PATH/libgolt.a" | awk 'NF == 3 { print $3 }' | sort >archive
    nm --dynamic --defined-only "$LD_LIBRARY_PATH/libgolt.so" | awk '{ print $3 }' | sort | diff archive -
    [ -s archive ]
}

@test "Installs headers that compile by themselves" {
    local header count=0
    cd "$PREFIX/include/golt"
    for header in *.h pela/*.h; do
        echo "#include \"$header\"" | "$CXX" -std=c++11 -Wall -Wextra -Wpedantic -Werror -I . -x c++ \
            -fsyntax-only -
        count=$((count + 1))
    done
    [ "$count" -ge 17 ]
}

@test "Installs the program where it finds the library, and what goes with it" {
    [ -s "$PREFIX/share/man/man1/golt.1" ]
    [ -s "$PREFIX/share/bash-completion/completions/golt" ]
    [ -s "$PREFIX/share/zsh/site-functions/_golt" ]
    LD_LIBRARY_PATH='' "$PREFIX/bin/golt" --version | grep ' v0\.8$'
    # Each further shared object would take 300 KB of memory.
    readelf --wide --dynamic "$PREFIX/bin/golt" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' >needed
    [ -z "$(grep -v '^libc\.\|^ld-linux' needed)" ]
}

@test "Has a guide for hosts whose program makes the stream that golt makes" {
    "$TOP/test/guide_host.sh" plain >host.cpp
    "$CXX" -Wall -Wextra -Werror host.cpp $(pkg-config --cflags --libs golt) -o host
    ./host mp4 "$TOP/samples/h264_aac.mp4" mine.ts
    "$PREFIX/bin/golt" remux -q --as-is "$TOP/samples/h264_aac.mp4" golt.ts
    cmp mine.ts golt.ts
    run -1 ./host mp4 /dev/null none.ts
    run -1 ./host mkv "$TOP/samples/short.m2ts" none.ts
}

@test "Has a guide for hosts whose stage makes the stream fit for receivers" {
    "$TOP/test/guide_host.sh" stage >host.cpp
    "$CXX" -Wall -Wextra -Werror host.cpp $(pkg-config --cflags --libs golt) -lgolt_stage -o host
    ./host mp4 "$TOP/samples/h264_aac.mp4" mine.ts
    # Of pictures and audio it is what golt makes, which knows the edit list and moves the audio by it.
    "$PREFIX/bin/golt" remux -q "$TOP/samples/h264_aac.mp4" golt.ts
    for stream in mine golt; do
        ffprobe -v error -show_entries packet=stream_index,flags,size -show_data_hash md5 -of csv $stream.ts |
            sort >$stream.packets
    done
    [ "$(wc -l <mine.packets)" -gt 200 ]
    diff mine.packets golt.packets
}
