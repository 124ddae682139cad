#include "app/CommandLine.h"

int main(int argc, char** argv) {
    return tarnwell::runCommandLine(argc, argv);
}
