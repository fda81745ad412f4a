/**
 * Smart cards and USB tokens: the native methods of {@link com.calvenhor.vork.utils.Smartcard}, and the {@code
 * java.security} provider {@link com.calvenhor.vork.utils.SmartcardProvider} over them.
 */
package com.calvenhor.vork.utils;
