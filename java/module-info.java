/** Smart cards and USB tokens, through the PKCS#11 module of the card's vendor. */
module com.calvenhor.vork.utils {
    exports com.calvenhor.vork.utils;

    provides java.security.Provider with com.calvenhor.vork.utils.SmartcardProvider;
}
