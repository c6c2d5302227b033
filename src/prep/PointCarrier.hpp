#pragma once

#include <set>
#include <string>
#include <vector>

// Carries points from one coordinate system to another, both named by EPSG codes, for
// pictures and GIS files that must show things where the run places them.
//
// Longitude-latitude (4326, 4612) and the JGD2000 plane systems go through the run's
// projection service, so an outline lands where the run's nesting check sees it; 4326 and
// 4612 are taken as one system, as the service takes them (they differ by centimetres).
// Any other code goes through PROJ at its true place: the run's service would take it as
// UTM zone 54, and the codes met so far are kept for a note in plain words.
//
// Single-threaded: the service is process-wide and is finalised after every call.
class PointCarrier {
  public:
    // Converts every point in place (x easting or longitude in degrees, y likewise).
    // False, with `why` in the user's words, when the two systems cannot be related or a
    // point does not convert; the arrays are then undefined.
    [[nodiscard]] bool Carry(int fromEpsg, int toEpsg, std::vector<double>& x,
                             std::vector<double>& y, std::string& why);

    // Plane codes outside the service that Carry has converted through PROJ.
    [[nodiscard]] const std::set<int>& OutsideService() const { return outsideService_; }

  private:
    std::set<int> outsideService_;
};

// The run's words for a code its service does not have, for a note.
[[nodiscard]] std::string OutsideServiceNote(int epsg);

// `lon` moved by whole turns to lie within half a turn of `centre` (degrees).
[[nodiscard]] double NearLongitude(double lon, double centre);
