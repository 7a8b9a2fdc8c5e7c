// A directory of the host's own: created 0700 when missing, and refused when
// someone else owns it or may write in it, since what the host keeps there
// (its control socket, its records) must not be replaced behind its back.
#pragma once

#include <sys/types.h>

#include <string>

namespace qel::host {

// Empty when `directory` is fit, else why not. `name` says what it is in the
// messages ("the state directory"); `forbidden` are the mode bits others may
// not have (022: no writing, 077: not even looking in); `requirement` ends
// the message when they have them.
std::string PreparePrivateDirectory(const std::string& directory, const std::string& name, mode_t forbidden,
                                    const std::string& requirement);

}  // namespace qel::host
