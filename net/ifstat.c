/* placeholder: filled by issue 5 */
