// The three functions a module exports, by their unmangled names.
#pragma once

#include "oro/object.h"

extern "C" {
using oroGetObjectFactory_t = oro::result_t (*)(oro::IServiceLocator*, oro::clsid_t, oro::IObjectFactory**);
using oroCreateObject_t = oro::result_t (*)(oro::clsid_t, oro::IServiceLocator*, oro::IObject**);
using oroCanUnloadModule_t = oro::result_t (*)();
}
