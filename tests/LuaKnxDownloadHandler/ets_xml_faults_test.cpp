// The builder when pugixml has no memory, and the document size limit: the
// document comes out whole or Create() throws, never with a part missing.

#include "ets_xml_test_support.h"

#include <LuaKnxDownloadHandler/EtsXmlParameter.h>

#include <cstdlib>
#include <cstring>
#include <set>
#include <stdexcept>
#include <string>

namespace lkdh::test {
namespace {

using Korvex::luaknxdownloadhandler::AddFunctionParameter;
using Korvex::luaknxdownloadhandler::AddParameter;

// pugixml's allocations in this program: counted, their bytes summed, and from
// the failAt-th on (1-based) failing while failCount lasts.
struct PugixmlHeap {
  static inline std::uint64_t calls = 0;
  static inline std::uint64_t failAt = 0;  // 0: none fails
  static inline std::uint64_t failCount = 0;
  static inline std::size_t bytes = 0;

  static void* Allocate(std::size_t size) {
    ++calls;
    if (failAt != 0 && calls >= failAt && calls - failAt < failCount) return nullptr;
    bytes += size;
    return std::malloc(size);
  }
  static void Deallocate(void* block) { std::free(block); }

  static void Reset(std::uint64_t at = 0, std::uint64_t count = 0) {
    calls = 0;
    failAt = at;
    failCount = count;
    bytes = 0;
  }
};

class BuilderFaultTest : public EtsXmlTest {
 protected:
  void SetUp() override {
    pugi::set_memory_management_functions(&PugixmlHeap::Allocate, &PugixmlHeap::Deallocate);
    PugixmlHeap::Reset();
  }
  void TearDown() override { PugixmlHeap::Reset(); }

  // Two folders of three functions whose URNs are long enough that pugixml
  // gives each text an allocation of its own.
  void UseFoldersWithLongUrns(std::size_t urnLength) {
    UseLimits(3);
    lux.propertyIds["NumberOfFolders"] = download.UInt8s(0, 40, {2});
    lux.propertyIds["NumberFuncPerFolder"] = download.UInt8s(0, 44, {3, 3});
    lux.propertyIds["FolderNameOffset"] = download.Names(0, 41, {"Living", "Kitchen"});
    lux.propertyIds["ChannelType"] = download.UInt8s(1, 50, {1, 2, 1, 2, 1, 2});
    lux.functionUrns[1] = std::string(urnLength, 'f');
    lux.channelUrns[1] = std::string(urnLength, 'c');
    lux.functionUrns[2] = "urn:short:function";
    lux.channelUrns[2] = "urn:short:channel";
    lux.parameters[1] = {Param("State", "Bool", download.Bools(1, 60, {1, 0, 1, 0, 1, 0}))};
  }

  std::unique_ptr<EtsXml> NewBuilder() {
    return std::make_unique<EtsXml>(download.objects, download.memory, download.descriptors,
                                    &logger, &lux);
  }
};

TEST_F(BuilderFaultTest, EachPugixmlAllocationFailingGivesTheWholeDocumentOrAnException) {
  UseFoldersWithLongUrns(20000);
  const auto expected = NewBuilder()->Create();
  ASSERT_TRUE(expected);
  const std::uint64_t allocations = PugixmlHeap::calls;
  ASSERT_GE(allocations, 4U);
  std::set<std::string> messages;
  for (std::uint64_t n = 1; n <= allocations; ++n) {
    PugixmlHeap::Reset(n, 1);
    try {
      const auto text = NewBuilder()->Create();
      ADD_FAILURE() << "allocation " << n << " failed and the document still came out ("
                    << (text ? text->size() : 0) << " bytes)";
    } catch (const std::runtime_error& error) {
      messages.insert(error.what());
    }
  }
  // Each long URN needs an allocation of its own, which names its attribute.
  EXPECT_EQ(messages.count("not enough memory to add the value of the attribute \"functionUrn\" "
                           "to the etsproject document"),
            1U);
  EXPECT_EQ(messages.count("not enough memory to add the value of the attribute "
                           "\"channelTypeUrn\" to the etsproject document"),
            1U);
  for (const std::string& message : messages) {
    EXPECT_EQ(message.rfind("not enough memory to add the ", 0), 0U) << message;
  }
  PugixmlHeap::Reset();
  EXPECT_EQ(NewBuilder()->Create(), expected);
}

// Many small nodes: pugixml's pages fill up at every kind of addition, a
// node, an attribute, or the text of a name or a value.
TEST_F(BuilderFaultTest, EachPageOfAManyParameterDocumentFailingGivesAnException) {
  UseFoldersWithLongUrns(10);
  const PropertyInfo values = download.UInt8s(1, 100, {1, 2, 3, 4, 5, 6});
  std::vector<LuaParameter> parameters;
  for (int p = 0; p < 1500; ++p) {
    parameters.push_back(Param(fmt::format("K{}", p), p % 2 == 0 ? "Bool" : "UInt8", values));
  }
  lux.parameters[1] = parameters;
  lux.parameters[2] = parameters;
  const auto expected = NewBuilder()->Create();
  ASSERT_TRUE(expected);
  const std::uint64_t allocations = PugixmlHeap::calls;
  ASSERT_GE(allocations, 20U);
  for (std::uint64_t n = 1; n <= allocations; ++n) {
    PugixmlHeap::Reset(n, 1);
    try {
      const auto text = NewBuilder()->Create();
      ADD_FAILURE() << "allocation " << n << " failed and a document came out, "
                    << (text == expected ? "the same" : "a different one");
    } catch (const std::runtime_error& error) {
      EXPECT_EQ(std::string(error.what()).rfind("not enough memory to add the ", 0), 0U)
          << error.what();
    }
  }
}

TEST_F(BuilderFaultTest, DeclarationPugixmlCannotStoreFailsTheDocument) {
  UseLimits();
  PugixmlHeap::Reset(1, 1);
  try {
    NewBuilder()->Create();
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "not enough memory to add the declaration \"xml\" to the etsproject document");
  }
}

TEST_F(BuilderFaultTest, ParameterWritersOnAnEmptyNodeStillAddNothingAndDoNotThrow) {
  pugi::xml_node none;
  const char* text = "x";
  EXPECT_NO_THROW(AddParameter<const char*>(none, "Key", text));
  EXPECT_NO_THROW(AddParameter<int>(none, "Key", 5));
  EXPECT_NO_THROW(AddFunctionParameter(none, "n", "function", 1, "u", "c", "1"));
  EXPECT_FALSE(none);
}

TEST_F(BuilderFaultTest, ParameterWriterWithoutMemoryThrowsInsteadOfLeavingOutTheKey) {
  pugi::xml_node parameters = document.append_child("parameters");
  // A key too long for a page, so that it needs an allocation of its own.
  const std::string key(100000, 'k');
  // The element and its attributes fit the page pugixml already has.
  PugixmlHeap::Reset(1, 1);
  try {
    AddParameter<int>(parameters, key.c_str(), 5);
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_STREQ(error.what(),
                 "not enough memory to add the value of the attribute \"key\" to the etsproject "
                 "document");
  }
}

TEST_F(BuilderFaultTest, DocumentOfExactlyTheLimitIsBuiltAndOneByteLessIsNot) {
  UseFoldersWithLongUrns(40);
  const auto text = NewBuilder()->Create();
  ASSERT_TRUE(text);
  auto exact = NewBuilder();
  exact->SetMaxDocumentBytes(text->size());
  EXPECT_EQ(exact->Create(), text);
  auto smaller = NewBuilder();
  smaller->SetMaxDocumentBytes(text->size() - 1);
  try {
    smaller->Create();
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()), "etsproject exceeds the document size limit of " +
                                             std::to_string(text->size() - 1) + " bytes.");
  }
}

TEST_F(BuilderFaultTest, LimitCrossedInsideAFolderStillAsksTheScriptForEveryFunction) {
  UseFoldersWithLongUrns(40);
  const auto text = NewBuilder()->Create();
  ASSERT_TRUE(text);
  const Journal whole = journal;
  journal.clear();
  // Past the opening part but inside the folders' text, above the running lower bound.
  const std::size_t limit = text->size() * 17 / 20;
  ASSERT_GT(limit, text->find("<element name=\"Kitchen\""));
  auto builder = NewBuilder();
  builder->SetMaxDocumentBytes(limit);
  try {
    builder->Create();
    ADD_FAILURE() << "no exception";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(std::string(error.what()),
              "etsproject exceeds the document size limit of " + std::to_string(limit) + " bytes.");
  }
  EXPECT_EQ(journal, whole);
}

TEST_F(BuilderFaultTest, LongScriptTextFailsBeforePugixmlTakesItsMemory) {
  // Six functions of which three have 1 MiB URNs: 6 MiB of text in the document.
  UseFoldersWithLongUrns(1024 * 1024);
  auto builder = NewBuilder();
  builder->SetMaxDocumentBytes(64 * 1024);
  EXPECT_THROW(builder->Create(), std::runtime_error);
  // Only the first pages of the tree and of the folder being built: no URN was
  // copied into either.
  EXPECT_LE(PugixmlHeap::bytes, 64U * 1024U);
}

TEST_F(BuilderFaultTest, DefaultLimitBuildsLargeDocuments) {
  UseFoldersWithLongUrns(1024 * 1024);
  const auto text = NewBuilder()->Create();
  ASSERT_TRUE(text);
  EXPECT_GT(text->size(), 6U * 1024U * 1024U);
}

}  // namespace
}  // namespace lkdh::test
