# shellcheck shell=bash disable=SC2034
# What the verbs of ./dev need of Debian; ./dev sources this.

# Debian packages of each group of verbs.
build_packages="g++ cmake ninja-build libfmt-dev libcli11-dev nlohmann-json3-dev libcurl4-openssl-dev libmicrohttpd-dev libseccomp-dev"
peer_packages="gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad"
test_packages="$peer_packages tstools googletest bats ffmpeg mkvtoolnix binutils bc pkg-config abigail-tools jq curl procps libcurl4 nginx-light openssl python3 groff-base"
browser_packages="chromium chromium-driver python3-selenium curl openssl"
bench_packages="libbenchmark-dev valgrind ffmpeg mkvtoolnix python3 time"
# Not g++-multilib, which excludes the cross compilers: it adds but a link to the kernel's headers, and the
# preset names their folder.
m32_packages="g++-12-multilib qemu-user"
arm_packages="g++-arm-linux-gnueabihf qemu-user"
static_packages="file ffmpeg bats binutils curl procps util-linux"
mipsel_packages="g++-mipsel-linux-gnu qemu-user"
clang_packages="clang-14 libclang-rt-14-dev"
msan_packages="$clang_packages debian-archive-keyring python3 xz-utils"
fuzz_packages="$clang_packages ffmpeg mkvtoolnix"
valgrind_packages="valgrind"
coverage_packages="gcovr"
coverage_host_packages="llvm-14"
lint_packages="clang-tidy-14 cppcheck git"
format_packages="clang-format-14 git"
docs_packages="doxygen"
serve_packages="$browser_packages bats ffmpeg mkvtoolnix nginx-light wrk procps python3"
# Those of debian/control, and what looks at packages.
deb_packages="$build_packages build-essential dpkg-dev debhelper git googletest lintian"
deb_test_packages="mmdebstrap autopkgtest apt-utils faketime locales"
machine_packages="qemu-system-x86 e2fsprogs"
foreign_packages="mmdebstrap arch-test qemu-user-static g++-arm-linux-gnueabihf"

say() { printf '%s\n' "$*" >&2; }

# Installs those of the named packages that are missing.
need() {
    local missing=()
    for package in "$@"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return
    local as_root=()
    if [ "$(id -u)" -ne 0 ]; then
        command -v sudo >/dev/null || {
            say "Missing packages: ${missing[*]}. Install them as root (apt-get install ${missing[*]})."
            exit 1
        }
        as_root=(sudo)
    fi
    say "Installing ${missing[*]}"
    "${as_root[@]}" apt-get update -qq >&2
    "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
        apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}
