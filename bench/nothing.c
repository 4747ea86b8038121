// nothing.c -- loads the C library, and ends as the tool does for a usage error.
int main(void) { return 2; }
