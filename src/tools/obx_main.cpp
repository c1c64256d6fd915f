#include "tools/obx_command.h"

int main(int argc, char** argv)
{
    return obx_main(argc, argv);
}
