#include "process/AgentProcess.h"

int main(int argc, char** argv) {
    return Agent::Main(argc, argv);
}
