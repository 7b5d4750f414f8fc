#include "recover.h"

int main(int argc, char** argv) { return bt::RecoverMain(argc, argv); }
