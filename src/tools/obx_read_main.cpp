#include "tools/read_run.h"

int main(int argc, char** argv)
{
    return obx_read_main(argc, argv);
}
