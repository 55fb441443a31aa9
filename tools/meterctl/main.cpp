// meterctl: a host for the meters of libmeters.so on a Linux machine.
#include <iostream>

#include "Commands.h"

int main(int argc, char** argv) {
    meterctl::Output io{std::cout, std::cerr};
    return meterctl::runCli(std::vector<std::string>(argv + 1, argv + argc), io);
}
