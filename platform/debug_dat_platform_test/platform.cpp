#include "platform.h"

#include <dlfcn.h>
#include <link.h>

namespace DebugDatPlatformTest {
namespace {

struct LibraryText {
  const char* file_name;
  const char* header;
};

constexpr std::array<LibraryText, kLibraries.size()> kLibraryTexts = {{
    {"libtarvoorvane.so", "platform/support_service_client.h"},
    {"libtarvocore.so", "platform/core.h"},
    {"libwebapi-Pelk5.so", "platform/web_api_runner.h"},
}};

struct SymbolText {
  Symbol symbol;
  Library library;
  const char* name;
  const char* linker_name;
};

#define STRING "NSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEE"
#define CLIENT "_ZN11TarvoOrvane11FastSupport17FastSupportClient"
#define UTILS "_ZN11TarvoOrvane5Utils"

constexpr SymbolText kSymbolTexts[] = {
    {Symbol::kConstructor, Library::kClient, "FastSupportClient(const std::string&)", CLIENT "C1ERK" STRING},
    {Symbol::kDestructor, Library::kClient, "~FastSupportClient()", CLIENT "D1Ev"},
    {Symbol::kReceive, Library::kClient, "FastSupportClient::Receive()", CLIENT "7ReceiveEv"},
    {Symbol::kSend, Library::kClient, "FastSupportClient::Send(ClientStatus)",
     CLIENT "4SendENS1_12ClientStatusE"},
    {Symbol::kInstance, Library::kClient, "LoggerManager::instance_", UTILS "13LoggerManager9instance_E"},
    {Symbol::kReconfigure, Library::kClient, "LoggerManager::ReconfigureByDebugFlag()",
     UTILS "13LoggerManager22ReconfigureByDebugFlagEv"},
    {Symbol::kSetupWriteToString, Library::kClient, "CurlSetupWriteToString()",
     UTILS "22CurlSetupWriteToStringERSt10unique_ptrIvPFvPvEER" STRING},
    {Symbol::kPerform, Library::kClient, "CurlPerform()", UTILS "11CurlPerformERSt10unique_ptrIvPFvPvEE"},
    {Symbol::kSlistAppend, Library::kClient, "CurlSlistAppend()",
     UTILS "15CurlSlistAppendERSt10unique_ptrI10curl_slistPFvPS2_EERK" STRING},
    {Symbol::kHttpPostAdd, Library::kClient, "CurlHttpPostAdd()",
     UTILS "15CurlHttpPostAddERNS0_12CurlHttpPostERK" STRING "RK14CURLformoptionSA_"},
    {Symbol::kGetSerialNumber, Library::kClient, "GetSerialNumber()", UTILS "15GetSerialNumberB5cxx11Ev"},
    {Symbol::kPidFileCreate, Library::kCore, "TLIBCProcPidFileCreate()", "TLIBCProcPidFileCreate"},
    {Symbol::kFork, Library::kCore, "TLIBCProcFork()", "TLIBCProcFork"},
    {Symbol::kForkEx, Library::kCore, "TLIBCProcForkEx()", "TLIBCProcForkEx"},
    {Symbol::kFileExist, Library::kCore, "TLIBCFileExist()", "TLIBCFileExist"},
    {Symbol::kExec, Library::kRunner, "TARVO::APIRunner::Exec()",
     "_ZN5TARVO9APIRunner4ExecERN4Json5ValueEPKciS5_RKS2_S5_"},
};

const SymbolText& TextOf(Symbol symbol) { return kSymbolTexts[static_cast<std::size_t>(symbol)]; }

std::size_t IndexOf(Library library) { return static_cast<std::size_t>(library); }

const link_map* MapOf(void* handle) {
  const link_map* map = nullptr;
  return dlinfo(handle, RTLD_DI_LINKMAP, &map) == 0 ? map : nullptr;
}

}  // namespace

const char* FileNameOf(Library library) { return kLibraryTexts[IndexOf(library)].file_name; }

const char* HeaderOf(Library library) { return kLibraryTexts[IndexOf(library)].header; }

std::vector<Symbol> SymbolsOf(Library library) {
  std::vector<Symbol> symbols;
  for (const SymbolText& text : kSymbolTexts) {
    if (text.library == library) symbols.push_back(text.symbol);
  }
  return symbols;
}

const char* NameOf(Symbol symbol) { return TextOf(symbol).name; }

std::string Platform::PathOf(Library library) const { return folder_ + "/" + FileNameOf(library); }

void Platform::Load(Library library) {
  void* const handle = dlopen(PathOf(library).c_str(), RTLD_NOW | RTLD_GLOBAL);
  if (handle == nullptr) throw std::runtime_error(dlerror());
  handles_[IndexOf(library)] = handle;
}

bool Platform::IsLoaded(Library library) const { return handles_[IndexOf(library)] != nullptr; }

std::string Platform::SonameOf(Library library) const {
  const link_map* const map = MapOf(handles_[IndexOf(library)]);
  const char* texts = nullptr;
  const ElfW(Dyn)* soname = nullptr;
  for (const ElfW(Dyn)* entry = map == nullptr ? nullptr : map->l_ld;
       entry != nullptr && entry->d_tag != DT_NULL; ++entry) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the loader has made an address of it
    if (entry->d_tag == DT_STRTAB) texts = reinterpret_cast<const char*>(entry->d_un.d_ptr);
    if (entry->d_tag == DT_SONAME) soname = entry;
  }
  return texts == nullptr || soname == nullptr ? "" : texts + soname->d_un.d_val;
}

void* Platform::Find(Symbol symbol) const {
  void* const handle = handles_[IndexOf(TextOf(symbol).library)];
  return handle == nullptr ? nullptr : dlsym(handle, TextOf(symbol).linker_name);
}

std::vector<std::string> LoadedFiles(const std::string& begin_of_name) {
  std::vector<std::string> files;
  for (const link_map* map = MapOf(dlopen(nullptr, RTLD_NOW)); map != nullptr; map = map->l_next) {
    const std::string path = map->l_name;
    if (path.substr(path.rfind('/') + 1).rfind(begin_of_name, 0) == 0) files.push_back(path);
  }
  return files;
}

}  // namespace DebugDatPlatformTest
