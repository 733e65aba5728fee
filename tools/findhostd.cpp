// findhostd - the appliance discovery daemon.
int main() { return 1; }
