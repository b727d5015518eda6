// The virtual board is being assembled; this unit keeps the library non-empty.
namespace sim {
int boardPlaceholder() { return 0; }
}
