#include "host/loaded_module.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <stdexcept>

namespace qel::host {
namespace {

std::string Hex(std::uint32_t value) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08x", value);
  return text;
}

template <class F>
F Symbol(void* handle, const char* name, const std::string& path) {
  auto* symbol = reinterpret_cast<F>(dlsym(handle, name));
  if (!symbol) throw std::runtime_error(path + " does not export " + name);
  return symbol;
}

}  // namespace

LoadedModule::LoadedModule(const std::string& path) : m_handle(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (!m_handle) throw std::runtime_error("cannot load " + path + ": " + dlerror());
  try {
    m_getFactory = Symbol<oroGetObjectFactory_t>(m_handle, "oroGetObjectFactory", path);
    m_createObject = Symbol<oroCreateObject_t>(m_handle, "oroCreateObject", path);
    m_canUnload = Symbol<oroCanUnloadModule_t>(m_handle, "oroCanUnloadModule", path);
  } catch (...) {
    dlclose(m_handle);
    throw;
  }
}

LoadedModule::~LoadedModule() {
  // Unloading with objects alive would pull code from under them.
  if (CanUnload()) dlclose(m_handle);
}

oro::RefPtr<oro::IObject> LoadedModule::CreateWithFactory(oro::clsid_t clsid, oro::IServiceLocator* locator) const {
  oro::RefPtr<oro::IObjectFactory> factory;
  oro::result_t r = m_getFactory(locator, clsid, factory.Out());
  if (ORO_FAILED(r)) throw std::runtime_error("no factory for class " + Hex(clsid) + ": result " + Hex(r));
  oro::RefPtr<oro::IObject> object;
  r = factory->CreateInstance(locator, object.Out());
  if (ORO_FAILED(r)) throw std::runtime_error("cannot create class " + Hex(clsid) + ": result " + Hex(r));
  return object;
}

oro::RefPtr<oro::IObject> LoadedModule::CreateDirectly(oro::clsid_t clsid, oro::IServiceLocator* locator) const {
  oro::RefPtr<oro::IObject> object;
  const oro::result_t r = m_createObject(clsid, locator, object.Out());
  if (ORO_FAILED(r)) throw std::runtime_error("cannot create class " + Hex(clsid) + ": result " + Hex(r));
  return object;
}

std::string DefaultModulePath() {
  std::error_code error;
  const auto self = std::filesystem::read_symlink("/proc/self/exe", error);
  if (error) return "libfirewall.so";
  return (self.parent_path() / "libfirewall.so").string();
}

}  // namespace qel::host
