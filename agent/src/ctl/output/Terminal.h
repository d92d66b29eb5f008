#pragma once

#include <sdk/text/Printable.h>
#include <sdk/text/Terminal.h>

namespace Ctl {

using SDK::Colour;
using SDK::Coloured;
using SDK::IsOutputClosed;
using SDK::Printable;
using SDK::SetColours;
using SDK::ShortTime;

}  // namespace Ctl
