/* Starts and ends; what that takes is all the libraries' around it. C, so that not even libstdc++ comes
 * along. */
int main(void) {
    return 0;
}
