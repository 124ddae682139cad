#include <iostream>

#include "service/Commands.h"

int main(int argc, char** argv) {
    return tarnwell::service::runCommand(argc, argv, std::cin, std::cout, std::cerr);
}
