#pragma once

#include <ostream>
#include <string>

namespace qel::host {

// firewall-host ctl [--control PATH] 'JSON'
//
// Sends one request line to a running host and prints its reply line.
// Returns 0 when the reply says ok, 1 when the host refused the request, 2
// when the host could not be reached or gave no reply.
int RunCtlCommand(const std::string& socketPath, const std::string& request, std::ostream& out, std::ostream& err);

}  // namespace qel::host
