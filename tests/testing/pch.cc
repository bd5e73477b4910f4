// Compiles the precompiled header that every test executable reuses; an
// executable so that it is built with the same position-independence flags.
int main() { return 0; }
