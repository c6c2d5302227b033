#include "project/BoundedMemoryManager.hpp"

#include <gtest/gtest.h>

#include <xercesc/framework/MemBufInputSource.hpp>
#include <xercesc/framework/Wrapper4InputSource.hpp>
#include <xercesc/parsers/DOMLSParserImpl.hpp>
#include <xercesc/util/OutOfMemoryException.hpp>
#include <xercesc/util/PlatformUtils.hpp>

#include <limits>
#include <string>

using namespace XERCES_CPP_NAMESPACE;

namespace {

constexpr std::size_t kUnbounded = std::numeric_limits<std::size_t>::max();

TEST(BoundedMemoryManager, HeldBytesUpToTheBound) {
    BoundedMemoryManager memory({1000, kUnbounded});
    void* most = memory.allocate(999);
    void* last = memory.allocate(1);
    EXPECT_THROW((void)memory.allocate(1), OutOfMemoryException);
    memory.deallocate(last); // freed bytes are room again
    last = memory.allocate(1);
    EXPECT_EQ(memory.held(), 1000u);
    memory.Lift();
    void* past = memory.allocate(5000);
    for (void* block : {most, last, past})
        memory.deallocate(block);
    EXPECT_EQ(memory.held(), 0u);
}

struct XercesScope {
    XercesScope() { XMLPlatformUtils::Initialize(); }
    ~XercesScope() { XMLPlatformUtils::Terminate(); }
};

// Whether the library's parser working in `memory` reads `xml` whole.
bool Parses(const std::string& xml, BoundedMemoryManager& memory) {
    DOMLSParserImpl* parser = new DOMLSParserImpl(nullptr, &memory);
    MemBufInputSource source(reinterpret_cast<const XMLByte*>(xml.data()), xml.size(), "doc");
    Wrapper4InputSource input(&source, false);
    bool whole = true;
    try {
        (void)parser->parse(&input);
    } catch (const OutOfMemoryException&) {
        whole = false;
    }
    parser->release(); // what it lost on the way out goes with `memory`
    return whole;
}

// The document is read by one reader and each expansion by one more; each is charged the
// longest entity noted before it was made, plus 4096. (The document's own reader is never
// refused in a run: the input source the library makes for it is lost when it is.)
TEST(BoundedMemoryManager, EachReaderIsChargedOnce) {
    const XercesScope xerces;
    const std::string twoInValue = "<!DOCTYPE P [<!ENTITY e 'v'>]><P a='&e;&e;'/>";
    const std::string twoInDefault =
        "<!DOCTYPE P [<!ENTITY e ''><!ATTLIST P a CDATA '&e;&e;'>]><P/>";
    const std::string twoParameter = "<!DOCTYPE P [<!ENTITY % e ' '>%e;%e;]><P/>";
    const struct {
        std::string xml;
        std::size_t noted; // an entity of this length declared before the parse
        std::size_t limit;
        bool parses;
    } cases[] = {
        {twoInValue, 0, 3 * 4096, true},   {twoInValue, 0, 3 * 4096 - 1, false},
        {twoInValue, 10, 3 * 4106, true},  {twoInValue, 10, 3 * 4106 - 1, false},
        {twoInDefault, 0, 3 * 4096, true}, {twoInDefault, 0, 3 * 4096 - 1, false},
        {twoParameter, 0, 3 * 4096, true}, {twoParameter, 0, 3 * 4096 - 1, false},
    };
    for (const auto& c : cases) {
        BoundedMemoryManager memory({kUnbounded, c.limit});
        memory.NoteEntity(c.noted);
        EXPECT_EQ(Parses(c.xml, memory), c.parses) << c.xml << " within " << c.limit;
    }
}

} // namespace
