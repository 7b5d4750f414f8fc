#include "recover.h"

int main(int argc, char** argv) { bt::RecoverMain(argc, argv); }
