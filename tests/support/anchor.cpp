// Keeps the support library from being empty.
namespace mivo_test {
extern const int kSupportVersion;
const int kSupportVersion = 1;
}  // namespace mivo_test
