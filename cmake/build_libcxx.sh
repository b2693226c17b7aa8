#!/usr/bin/env bash
# build_libcxx.sh FOLDER: LLVM's C++ library with the memory sanitizer, from the sources of Debian's clang. Of the library
# that is installed the sanitizer sees nothing, and takes what it writes for unwritten.
set -euo pipefail
version=14
mkdir -p "$1"
folder=$(realpath "$1")
[ ! -f "$folder/complete" ] || exit 0
rm -rf "$folder"
mkdir -p "$folder"/{lists/partial,sources}
cd "$folder"

# apt gets lists of its own, so that the machine needn't list sources.
echo "deb-src [signed-by=/usr/share/keyrings/debian-archive-keyring.gpg]" \
    "${DEBIAN_MIRROR:-http://deb.debian.org/debian} bookworm main" >sources.list
apt=(apt-get -qq -o "APT::Sandbox::User=$(id -un)" -o Dir::Etc::SourceList="$folder/sources.list"
    -o Dir::Etc::SourceParts=/dev/null -o Dir::State::Lists="$folder/lists" -o Dir::Cache="$folder")
"${apt[@]}" update
"${apt[@]}" source --download-only llvm-toolchain-$version
tar --extract --file llvm-toolchain-${version}_*.orig.tar.xz --directory sources --strip-components=1 \
    --wildcards '*/cmake/*' '*/libcxx/*' '*/libcxxabi/*' '*/runtimes/*' '*/llvm/utils/llvm-lit/*'

cmake -G Ninja -S sources/runtimes -B build -DCMAKE_INSTALL_PREFIX="$folder" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_C_COMPILER=clang-$version -DCMAKE_CXX_COMPILER=clang++-$version \
    -DLLVM_ENABLE_RUNTIMES='libcxx;libcxxabi' -DLLVM_USE_SANITIZER=MemoryWithOrigins -DLLVM_INCLUDE_TESTS=OFF \
    -DLIBCXX_ENABLE_SHARED=OFF -DLIBCXX_ENABLE_STATIC_ABI_LIBRARY=ON -DLIBCXX_INCLUDE_BENCHMARKS=OFF \
    -DLIBCXXABI_ENABLE_SHARED=OFF -DLIBCXXABI_USE_LLVM_UNWINDER=OFF
cmake --build build --target install-cxx install-cxxabi
rm -rf build lists sources sources.list ./*.bin ./llvm-toolchain-*
touch complete
