// Placeholder until the start record exists: proves the toolchain builds and links lumo.
#include <cstdio>

#include "lumo/image.h"

int main() {
  lumo::Image image(2, 2);
  std::printf("lumo builds: image %dx%d\n", image.width(), image.height());
}
