/** Simulates failures of smart cards, for tests of applications that use smart cards. */
module com.calvenhor.vork.utils.testing {
    exports com.calvenhor.vork.utils.testing;
}
