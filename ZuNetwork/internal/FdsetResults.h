#pragma once

namespace ZuInternal {

// What kdfdset_set, kdfdset_clr and kdfdset_isset return instead of an answer.
constexpr int kNoRoom = -1;     // the descriptor is negative or too large for the set
constexpr int kNoStorage = -2;  // there is no set, or it lost its storage

}  // namespace ZuInternal
