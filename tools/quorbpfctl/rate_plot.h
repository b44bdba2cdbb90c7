// RenderRatePlotSvg: events per second per type over the statistics window,
// as an SVG document a browser or image viewer opens.
//
// One polyline per event type that had any event, oldest second on the left,
// the newest whole second at 0 on the right; x in seconds before the dump,
// y in events per second. Rates of different types differ by orders of
// magnitude (memory counters versus forks), so the y axis is logarithmic by
// default (log10(1 + rate), zero stays on the axis); `logScale` false draws
// it linear. Axes, tick labels, a title and a legend with each type's mean
// rate are included; a window without events says so.
//
// Pure function; any thread.
#pragma once

#include <cstdint>
#include <string>

#include "tools/quorbpfctl/state_table.h"

namespace Quor {
namespace Bpf {
namespace Ctl {

std::string RenderRatePlotSvg(const StateTable& table, bool logScale, const std::string& title);

}  // namespace Ctl
}  // namespace Bpf
}  // namespace Quor
