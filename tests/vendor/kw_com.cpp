#include "platform/kw_com.h"

int s_create_serv_socket(const char*) {
    return -1;
}
int s_accept_client(int) {
    return -1;
}
int s_read_data(int, void*, int) {
    return -1;
}
int s_write_data(int, const void*, int) {
    return -1;
}
int s_create_client_socket(void) {
    return -1;
}
int s_connect_serv(int, const char*) {
    return -1;
}
int shm_create(const char*, char, KW_SHM*, int, unsigned long, unsigned long, int, int) {
    return -1;
}
int shm_write_data(KW_SHM*, const char*, unsigned long, int, int, int, unsigned long, int) {
    return -1;
}
int shm_destroy(KW_SHM*) {
    return -1;
}
