#include "daemon/daemon.h"

int main() {
    return runDaemon();
}
