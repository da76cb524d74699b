#ifndef COMMON_STANDARD_STREAMS_H
#define COMMON_STANDARD_STREAMS_H

/// Opens /dev/null for each standard stream that is closed: otherwise a file that is opened later would take its place.
/// It is opened to read only, so that writing still fails. To be called first.
void OccupyStandardStreams();

#endif  // COMMON_STANDARD_STREAMS_H
