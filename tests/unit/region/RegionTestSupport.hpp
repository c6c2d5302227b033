#pragma once

#include "region/Region.hpp"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>

// What one call printed, and its result.
struct Printed {
    int result;
    std::string out;
    std::string err;
};

template <class Call> Printed Capture(Call&& call) {
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int result = call();
    Printed printed{result, "", ""};
    printed.out = testing::internal::GetCapturedStdout();
    printed.err = testing::internal::GetCapturedStderr();
    return printed;
}

// A call's result, standard output and standard error as "result|out|err", checked at once.
template <class Call> std::string Outcome(Call&& call) {
    const Printed p = Capture(call);
    return std::to_string(p.result) + "|" + p.out + "|" + p.err;
}

// A region of the given kind whose input file is `path` (kinds without an input file
// ignore it), named R1 with a grid size of 10.
inline Region RegionReading(RType kind, const std::string& path) {
    XML_REGION rec;
    rec.RegionNo = 1;
    rec.RegionName = "R1";
    rec.GridSize = 10.0;
    rec.Topography.FileName = path;
    rec.RoughnessCoefficient.FileName = path;
    rec.ConstructionLineData.FileName = path;
    rec.LandMap.FileName = path;
    rec.WaveHeight.FileName = path;
    return Region(kind, rec);
}

// Little-endian bytes of fixed-width values, for hand-made binary grids.
class Bytes {
  public:
    template <class T> Bytes& Put(T value) {
        char raw[sizeof(T)];
        std::memcpy(raw, &value, sizeof(T));
        text_.append(raw, sizeof(T));
        return *this;
    }
    Bytes& Header(double orgX, double orgY, std::int32_t nx, std::int32_t ny, float size) {
        return Put(orgX).Put(orgY).Put(nx).Put(ny).Put(size);
    }
    const std::string& str() const { return text_; }

  private:
    std::string text_;
};

// Everything a file holds, byte for byte.
inline std::string FileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

// What `write(FILE*)` writes to a stream; the call must succeed.
template <class Write> std::string Written(Write&& write) {
    char* buffer = nullptr;
    size_t size = 0;
    std::FILE* stream = open_memstream(&buffer, &size);
    EXPECT_TRUE(write(stream));
    std::fclose(stream);
    std::string text(buffer, size);
    std::free(buffer);
    return text;
}

inline const std::string kRule =
    "_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/_/\n";

// An error block: rule, head line, one "  ERROR-DETAIL:" line per detail, rule.
inline std::string ErrorBlock(const std::string& head,
                              std::initializer_list<std::string> details = {}) {
    std::string text = kRule + head + "\n";
    for (const std::string& detail : details)
        text += "  ERROR-DETAIL:" + detail + "\n";
    return text + kRule;
}
