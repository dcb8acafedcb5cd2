# The Debian packages the project's builds need, and their installation.
# Sourced by the scripts that build (install_missing_packages NAME...,
# with the sets below); run on its own, it installs a set:
#   bash tools/packages.sh [build|tests|all|docs] (default: tests)
#     build  a build with CORVEX_TESTS=OFF (the library and the programs)
#     tests  a native build with its tests (the "Building by hand" commands)
#     all    everything the test command builds: -m32, clang and its
#            fuzzer runtime (x86-64 and i386), the benchmarks and their peers
#     docs   what renders the README's pictures (rsvg-convert)
corvex_packages_build=(cmake ninja-build make g++ python3 libreadline-dev libdw-dev)
corvex_packages_tests=("${corvex_packages_build[@]}" libgtest-dev libgmock-dev googletest tshark
  pkg-config dpkg-dev file binutils)
corvex_packages_all=("${corvex_packages_tests[@]}" gcc-multilib g++-multilib clang libclang-rt-14-dev
  libbenchmark-dev zlib1g-dev libjudy-dev)
corvex_packages_docs=(librsvg2-bin)

# Installs the Debian packages named as arguments that this machine lacks.
install_missing_packages() {
  local missing=() p
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
  done
  [ ${#missing[@]} -eq 0 ] && return 0
  echo "== installing: ${missing[*]}"
  local sudo=""
  [ "$(id -u)" = 0 ] || sudo=sudo
  $sudo apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq "${missing[@]}" >/dev/null
}

if [ "${BASH_SOURCE[0]}" = "$0" ]; then
  set -euo pipefail
  case ${1:-tests} in
    build) install_missing_packages "${corvex_packages_build[@]}" ;;
    tests) install_missing_packages "${corvex_packages_tests[@]}" ;;
    all) install_missing_packages "${corvex_packages_all[@]}" ;;
    docs) install_missing_packages "${corvex_packages_docs[@]}" ;;
    *) echo "usage: bash tools/packages.sh [build|tests|all|docs]" >&2; exit 2 ;;
  esac
fi
