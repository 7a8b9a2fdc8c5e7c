// libfirewall.so loaded at run time, reached through its three exports only.
#pragma once

#include <string>

#include "oro/module_exports.h"
#include "oro/ref_ptr.h"

namespace qel::host {

class LoadedModule {
 public:
  // Throws std::runtime_error naming the library and the loader's reason.
  explicit LoadedModule(const std::string& path);
  ~LoadedModule();
  LoadedModule(const LoadedModule&) = delete;
  LoadedModule& operator=(const LoadedModule&) = delete;

  // A new object of a class with a factory, or of a class created directly.
  // Throws std::runtime_error with the class id and the result code.
  oro::RefPtr<oro::IObject> CreateWithFactory(oro::clsid_t clsid, oro::IServiceLocator* locator) const;
  oro::RefPtr<oro::IObject> CreateDirectly(oro::clsid_t clsid, oro::IServiceLocator* locator) const;
  bool CanUnload() const { return m_canUnload() == oro::errOk; }

 private:
  void* m_handle;
  oroGetObjectFactory_t m_getFactory;
  oroCreateObject_t m_createObject;
  oroCanUnloadModule_t m_canUnload;
};

// The library beside the running program, where the build puts it.
std::string DefaultModulePath();

}  // namespace qel::host
