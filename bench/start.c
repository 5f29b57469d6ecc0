/* Does nothing: what a program pays for the libraries that it is linked with. */
int main(void) { return 0; }
