// The measurement that later ones are compared with, as a file on flash: one
// line of JSON, as clients get a measurement. Plain functions that never throw;
// the caller sees to it that one runs at a time.
#pragma once

#include "otdr_measurement.hpp"

namespace reference_point_file {

// Takes the stored reference point, and tells whether all is well. Without a
// file that is so, and the point stays as it is. A file that is no reference
// point in every detail is refused as a whole: it gives a log line, false, and a
// point that is all zero. Only what does not fit into the record is dropped.
bool read(otdr_measurement& point);

// Replaces the file. False, with a log line, where not all of it could be
// written.
bool write(const otdr_measurement& point);

}  // namespace reference_point_file
