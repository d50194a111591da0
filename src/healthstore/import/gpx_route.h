// Route files of an export (workout-routes/*.gpx): one track of points with their time,
// elevation, speed, course and accuracies. Pure function: safe on any thread.
#pragma once

#include <string_view>
#include <vector>

#include "healthstore/stored_rows.h"
#include "platform/result.h"

namespace kestrova {

// Errors: the text is not well-formed XML (with the line), or a point has no position or time.
Result<std::vector<RouteLocation>> parseGpxRoute(std::string_view text, std::string_view fileName);

}  // namespace kestrova
