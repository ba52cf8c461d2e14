// A minimal host built from the installed headers: loads the plug-in (or is
// linked with it), reads its version and takes one handler through its life.
// Prints one line per step, which the test compares.
#include <KnxStack/BinaryData.h>
#include <Korvex/IKnxDownloadHandler.h>
#include <LuaKnxDownloadHandler/Version.h>

#include <iostream>
#include <string>

#ifdef LKDH_LINKED
extern "C" Korvex::IKnxDownloadHandler* CreateHandler(const std::string& configuration);
extern "C" void DeleteHandler(Korvex::IKnxDownloadHandler*& handler);
#else
#include <dlfcn.h>
#endif

int main(int argc, char** argv) {
  if (argc != 2) {
    std::cerr << "usage: host ETSPROJECT;SCRIPT\n";
    return 2;
  }
  std::cout << "package " << LKDH_PACKAGE_VERSION << "\n";
#ifdef LKDH_LINKED
  const LuaKnxDownloadHandlerVersionFunction version = &LuaKnxDownloadHandlerVersion;
  const Korvex::CreateHandlerFunction create = &CreateHandler;
  const Korvex::DeleteHandlerFunction destroy = &DeleteHandler;
#else
  void* module = dlopen(LKDH_PLUGIN, RTLD_NOW | RTLD_LOCAL);
  if (module == nullptr) {
    std::cerr << dlerror() << "\n";
    return 3;
  }
  const auto version =
      reinterpret_cast<LuaKnxDownloadHandlerVersionFunction>(dlsym(module, LKDH_VERSION_SYMBOL));
  const auto create =
      reinterpret_cast<Korvex::CreateHandlerFunction>(dlsym(module, Korvex::kCreateHandlerSymbol));
  const auto destroy =
      reinterpret_cast<Korvex::DeleteHandlerFunction>(dlsym(module, Korvex::kDeleteHandlerSymbol));
  if (version == nullptr || create == nullptr || destroy == nullptr) {
    std::cerr << "missing entry point\n";
    return 3;
  }
#endif
  std::cout << "plug-in " << version() << "\n";
  Korvex::IKnxDownloadHandler* handler = create(argv[1]);
  std::cout << "loaded " << (handler->Loaded() ? "true" : "false") << "\n";
  // A download without interface objects: the plug-in writes nothing and answers false.
  const Korvex::InterfaceObjectMap objects;
  const KnxStack::BinaryData memory;
  const Korvex::CoDescriptorDataMap descriptors;
  int resets = 0;
  const bool result = handler->CreateFileWithKnxData(
      objects, memory, [&resets] { ++resets; }, Korvex::IKnxDownloadHandler::AppData_None,
      descriptors);
  std::cout << "result " << (result ? "true" : "false") << ", resets " << resets << "\n";
  destroy(handler);
  std::cout << "deleted " << (handler == nullptr ? "true" : "false") << "\n";
#ifndef LKDH_LINKED
  dlclose(module);
#endif
  return 0;
}
