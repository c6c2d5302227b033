#pragma once

// Which of a region's two point lists a fitted point joins. The underlying type is fixed
// so that any int is a valid value: callers may pass other kinds, which are ignored.
enum PointType : int {
    STATION_POINT = 0, // observation station list
    EXTRACT_POINT = 1, // coastal extract point list
};
