// Stands for the library of a version before.
extern "C" __attribute__((visibility("default"))) int qorOfBefore() {
    return 0;
}
