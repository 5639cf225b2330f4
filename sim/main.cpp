#include "sim/lidar_simulator.h"
int main() { return 0; }
