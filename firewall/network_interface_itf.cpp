#include "firewall/network_interface_itf.h"

#include <algorithm>
#include <system_error>

#include "qel_tracing/guard.h"

namespace qel::firewall {

namespace fs = std::filesystem;

NetworkInterfaceItf::NetworkInterfaceItf(tracing::Tracer tracer, fs::path sysfsRoot, InterfaceSnapshot snapshot)
    : m_tracer(std::move(tracer)), m_directory(std::move(sysfsRoot) / snapshot.name), m_snapshot(std::move(snapshot)) {}

std::uint32_t NetworkInterfaceItf::GetIndex() const noexcept { return m_snapshot.index; }

const char* NetworkInterfaceItf::GetName() const noexcept { return m_snapshot.name.c_str(); }

bool NetworkInterfaceItf::IsEnabled() const noexcept { return m_snapshot.enabled; }

// Only a device-backed interface has the "device" link; the entry itself is
// looked at, so a link whose target cannot be reached still counts.
oro::result_t NetworkInterfaceItf::IsPhysical() const noexcept {
  std::error_code error;
  return fs::exists(fs::symlink_status(m_directory / "device", error)) ? oro::errOk : oro::errFalse;
}

oro::result_t NetworkInterfaceItf::GetLowerInterfaces(std::vector<std::string>& names) const noexcept {
  return tracing::Guarded(m_tracer, "GetLowerInterfaces", [&] { return ListLinks("lower_", names); });
}

oro::result_t NetworkInterfaceItf::GetUpperInterfaces(std::vector<std::string>& names) const noexcept {
  return tracing::Guarded(m_tracer, "GetUpperInterfaces", [&] { return ListLinks("upper_", names); });
}

// The kernel links each stacked interface into the directory as
// "lower_NAME" or "upper_NAME".
oro::result_t NetworkInterfaceItf::ListLinks(const std::string& prefix, std::vector<std::string>& names) const {
  std::error_code error;
  fs::directory_iterator entries(m_directory, error);
  std::vector<std::string> found;
  for (; !error && entries != fs::directory_iterator(); entries.increment(error)) {
    const std::string entry = entries->path().filename().string();
    if (entry.size() > prefix.size() && entry.starts_with(prefix)) found.push_back(entry.substr(prefix.size()));
  }
  if (error) {
    m_tracer.Write(tracing::Error, "failed to open ", m_directory.string(), ": ", error.message());
    return error.category() == std::generic_category() || error.category() == std::system_category()
               ? oro::ResultFromErrno(error.value())
               : oro::errUnexpected;
  }
  std::sort(found.begin(), found.end());
  names = std::move(found);
  return oro::errOk;
}

}  // namespace qel::firewall
