#include "zelsim.h"

int main(int argc, char **argv)
{
    return zsim_main(argc, argv);
}
