// A program without the dynamic linker: no preload library comes under it.
int main() {}
