extern "C" void* CreateModule() {
    return nullptr;
}
