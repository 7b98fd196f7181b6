#include "app/commands.h"

int main(int argc, char** argv) { return vigilo::vigiloMain(argc, argv); }
