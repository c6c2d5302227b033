#include "driver/ErrorCodes.hpp"
#include "driver/Run.hpp"
#include "project/Console.hpp"

#include <gdal.h>

#include <cstdint>
#include <exception>
#include <string>

int main(int argc, char** argv) {
    PrintBanner();
    if (argc != 2) {
        PrintUsage();
        return 0;
    }
    // Pictures are classified into a buffer of their own and handed to GDAL whole: a
    // cache of GDAL's own default size would hold a second copy of every picture until
    // it is closed, where a few strips waiting for the compressor are all it needs.
    GDALSetCacheMax64(std::int64_t{4} << 20);
    try {
        RunProject(argv[1]);
    } catch (int code) {
        PrintCodeBlock(code); // the run's objects are already destroyed
        return 1;
    } catch (const std::exception& failure) {
        // Out of memory and the like: still a message and status 1, never an abort.
        PrintErrorBlock({std::string("ERROR:Unexpected failure (") + failure.what() + ")"});
        return 1;
    }
    return 0;
}
