/**
 * {@link com.calvenhor.vork.utils.Smartcard} has the native methods, for applications that work with tokens themselves.
 * {@link com.calvenhor.vork.utils.SmartcardProvider} makes a token a KeyStore, for what speaks to {@code java.security}.
 */
package com.calvenhor.vork.utils;
