#include <cstdio>

int main() {
    std::puts("obx_read");
    return 0;
}
