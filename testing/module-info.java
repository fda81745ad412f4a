/** What goes wrong with smart cards, for the tests of applications that use them. */
module com.calvenhor.vork.utils.testing {
    exports com.calvenhor.vork.utils.testing;
}
