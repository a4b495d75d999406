// The program whose precompiled headers the tests use needs a source.
int main() {
  return 0;
}
