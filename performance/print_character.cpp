// What any program costs that prints through the C++ library, to compare the tool's start-up with.

#include <iostream>

int main() {
    std::cout << '1' << std::endl;
    return 0;
}
