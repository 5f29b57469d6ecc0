// Links the library and looks at nothing but what its loading left: 0 if the collision address is
// known although this program never constructed an address.

#include "support/Collision.h"

int main() {
  if (!CZuIPAddr::m_DummyIpInit) return Complain("The collision address is not known.");
  return CheckRefusal(&CZuIPAddr::GetByName);
}
