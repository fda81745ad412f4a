/**
 * Native methods in {@link com.calvenhor.vork.utils.Smartcard}, for applications that work with tokens themselves, and
 * the {@code java.security} provider {@link com.calvenhor.vork.utils.SmartcardProvider}, which uses them.
 */
package com.calvenhor.vork.utils;
