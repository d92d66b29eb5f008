#pragma once

namespace Collector {

/// The program sentrel_collector; throws nothing.
int Main(int argc, const char* const* argv);

}  // namespace Collector
