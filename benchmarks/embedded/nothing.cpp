// What the others are compared with.
int main() {}
