// The module's registry of serialisation descriptors: the host's serialiser
// asks it for a record type's descriptor by the type's name.
#pragma once

#include <string>

#include "oro/object.h"
#include "oro/storage.h"
#include "qel_common/object_impl.h"

namespace qel::firewall {

class TypeDescriptorStaticRegistry final
    : public ObjectImpl<TypeDescriptorStaticRegistry, oro::ITypeDescriptorRegistry> {
 public:
  // Needs no collaborator; the locator is what every created object is given.
  explicit TypeDescriptorStaticRegistry(oro::IServiceLocator* locator);

  const oro::SerObjDescriptor* FindDescriptor(const std::string& typeName) const noexcept override;
};

}  // namespace qel::firewall
