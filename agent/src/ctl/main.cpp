#include "ctl/Cli.h"

int main(int argc, char** argv) {
    return Ctl::Main(argc, argv);
}
