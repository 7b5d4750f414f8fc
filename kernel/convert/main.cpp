#include "byteturn_command.h"

int main(int argc, char** argv) { return bt::ByteturnMain(argc, argv); }
