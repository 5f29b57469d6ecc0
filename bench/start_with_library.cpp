// Links the network library and does nothing.
int main() { return 0; }
