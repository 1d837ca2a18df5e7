// velmora-check: explains what the library makes of an application's VelmoraConfig.json.
#include "check.h"

#include <exception>
#include <iostream>

int main(int argc, char** argv) {
    try {
        return velmora::check::RunCheck({argv + 1, argv + argc}, std::cout, std::cerr);
    } catch (const std::exception& e) {
        std::cerr << "velmora-check: " << e.what() << "\n";
        return 1;
    }
}
