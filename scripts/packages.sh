# The Debian packages that the programs, the tests and the checks of the code need.
build_packages=(g++ cmake ninja-build libboost-dev nlohmann-json3-dev libcli11-dev)
test_packages=("${build_packages[@]}" libgtest-dev clang libclang-rt-14-dev)
lint_packages=("${test_packages[@]}" git clang-format clang-tidy clang-tools)
