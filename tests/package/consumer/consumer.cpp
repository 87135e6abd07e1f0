// Somebody else's program: knows the installed headers, links the installed library.

#include "everything.h"

int main() {
  return 0;
}
