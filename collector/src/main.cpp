#include "Cli.h"

int main(int argc, char** argv) {
    return Collector::Main(argc, argv);
}
