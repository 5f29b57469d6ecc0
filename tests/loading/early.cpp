// Constructs an address before any library was initialised: 0 if the collision address, which this
// made, is still there when they are.

#include "support/Collision.h"

namespace {

bool gKnownEarly = false;

void ConstructEarly() {
  const CZuIPAddr address;
  gKnownEarly = CZuIPAddr::m_DummyIpInit;
}

// The loader calls these of the program before the initialisers of the libraries.
__attribute__((section(".preinit_array"), used)) void (*const gConstructEarly)() = ConstructEarly;

}  // namespace

int main() {
  if (!gKnownEarly) return Complain("An early construction did not read the collision address.");
  if (!CZuIPAddr::m_DummyIpInit) return Complain("The collision address is not known any more.");
  return CheckRefusal(&CZuIPAddr::GetByName);
}
