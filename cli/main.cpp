#include "run.h"

int main(int argc, char** argv) { return lumo::cli::run(argc, argv); }
