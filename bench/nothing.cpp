// nothing.cpp -- does nothing, with the tool's libraries.
int main() { return 2; }
