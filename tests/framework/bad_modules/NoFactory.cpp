extern "C" int AnotherFunction() {
    return 0;
}
