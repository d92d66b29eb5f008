#include "SentryProcess.h"

int main(int argc, char** argv) {
    return Sentry::Main(argc, argv);
}
