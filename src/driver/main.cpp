#include "driver/ErrorCodes.hpp"
#include "driver/Run.hpp"
#include "project/Console.hpp"

#include <exception>
#include <string>

int main(int argc, char** argv) {
    PrintBanner();
    if (argc != 2) {
        PrintUsage();
        return 0;
    }
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
