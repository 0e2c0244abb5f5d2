# shellcheck shell=bash disable=SC2034
# The Debian packages that the programs, the tests and the checks of the code need; python3 runs orvin-recording.
build_packages=(g++ cmake ninja-build libboost-dev nlohmann-json3-dev libcli11-dev gettext python3)
arm_build_packages=("${build_packages[@]}" g++-arm-linux-gnueabihf g++-arm-linux-gnueabi)
manual_test_packages=(mandoc man-db)
test_packages=("${build_packages[@]}" "${manual_test_packages[@]}" libgtest-dev clang libclang-rt-14-dev)
arm_packages=("${arm_build_packages[@]}" qemu-user googletest)
package_test_packages=(lintian debootstrap)
fleet_test_packages=("${test_packages[@]}" ansible-core minisign prometheus systemd)
lint_packages=("${test_packages[@]}" clang-format clang-tidy clang-tools cmake-format shellcheck black flake8 mypy yamllint ansible-lint)
bench_packages=("${build_packages[@]}" valgrind binutils)
