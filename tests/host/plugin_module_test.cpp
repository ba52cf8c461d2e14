// Loads the installed plug-in the way the device's host does. This program
// does not link the plug-in itself: a second copy of it in one process would
// run its static initialisers over the first copy's objects.
#include <Korvex/IKnxDownloadHandler.h>
#include <LuaKnxDownloadHandler/Version.h>

#include <gtest/gtest.h>

#include <dlfcn.h>

#include <string>

namespace {

using Korvex::IKnxDownloadHandler;

std::string Script() {
  return LKDH_SOURCE_DIR "/tests/LuaKnxDownloadHandler/data/handler_device.lua";
}

TEST(EntryPoints, InstalledModuleExportsBothEntryPointsUnderPlainNames) {
  void* module = dlopen(LKDH_INSTALLED_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  auto create =
      reinterpret_cast<Korvex::CreateHandlerFunction>(dlsym(module, Korvex::kCreateHandlerSymbol));
  auto destroy =
      reinterpret_cast<Korvex::DeleteHandlerFunction>(dlsym(module, Korvex::kDeleteHandlerSymbol));
  ASSERT_NE(create, nullptr);
  ASSERT_NE(destroy, nullptr);
  IKnxDownloadHandler* handler = create("/tmp/x.xml;" + Script());
  ASSERT_NE(handler, nullptr);
  EXPECT_TRUE(handler->Loaded());
  destroy(handler);
  EXPECT_EQ(handler, nullptr);
  EXPECT_EQ(dlclose(module), 0);
}

TEST(EntryPoints, ExportedNamespacedFunctionsResolveInTheInstalledModule) {
  void* module = dlopen(LKDH_INSTALLED_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  // Korvex::CreateHash and the three exported string getters, by their
  // mangled names (Itanium C++ ABI, as on the device's ARM toolchain).
  // The mangled names are split by hand, where they read best.
  // clang-format off
  const char* const names[] = {
      "_ZN6Korvex10CreateHashERKNSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
      "_ZN6Korvex21luaknxdownloadhandler24GetStringFromArrayWithIdENS0_12PropertyInfoEjRKSt3mapIjSt6"
      "vectorIPN8KnxStack16IInterfaceObjectESaIS6_EESt4lessIjESaISt4pairIKjS8_EEEONSt7__cxx1112basic_"
      "stringIcSt11char_traitsIcESaIcEEE",
      "_ZN6Korvex21luaknxdownloadhandler25GetStringWithIdFromMemoryENS0_12PropertyInfoEhRKSt3mapIjSt6"
      "vectorIPN8KnxStack16IInterfaceObjectESaIS6_EESt4lessIjESaISt4pairIKjS8_EEEPKNS4_10BinaryDataEON"
      "St7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
      "_ZN6Korvex21luaknxdownloadhandler34GetStringFromArrayWithIdFromMemoryENS0_12PropertyInfoEhjRKSt3"
      "mapIjSt6vectorIPN8KnxStack16IInterfaceObjectESaIS6_EESt4lessIjESaISt4pairIKjS8_EEEPKNS4_10Binary"
      "DataEONSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE",
  };
  // clang-format on
  for (const char* name : names) {
    EXPECT_NE(dlsym(module, name), nullptr) << name;
  }
  // Only the two entry points have plain names.
  EXPECT_EQ(dlsym(module, "CreateHash"), nullptr);
  dlclose(module);
}

TEST(EntryPoints, InstalledModuleAnswersItsVersionUnderAPlainName) {
  void* module = dlopen(LKDH_INSTALLED_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  ASSERT_NE(module, nullptr) << dlerror();
  auto version =
      reinterpret_cast<LuaKnxDownloadHandlerVersionFunction>(dlsym(module, LKDH_VERSION_SYMBOL));
  ASSERT_NE(version, nullptr) << dlerror();
  EXPECT_STREQ(version(), LKDH_PROJECT_VERSION);
  dlclose(module);
}

}  // namespace
