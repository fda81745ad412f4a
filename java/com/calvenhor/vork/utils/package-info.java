/**
 * Smart cards and USB tokens: the native methods of {@link com.calvenhor.vork.utils.Smartcard}, and
 * {@link com.calvenhor.vork.utils.SmartcardProvider}, a {@code java.security} provider that uses them.
 */
package com.calvenhor.vork.utils;
