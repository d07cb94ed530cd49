<tr class="{cycle values="light,dark"}{if $odd} odd{/if}">
  <td><a href="/product/{$product.id}">{$product.name|escape|capitalize}</a></td>
  <td>{math equation="cents / 100" cents=$product.cents format="%.2f"} EUR</td>
  <td>{$product.text|truncate:60:"..."|escape:"html"}</td>
  <td>{$product.text|regex_replace:"/brass/":"steel"|regex_replace:"/\s+/":" "|spacify:"."}</td>
  <td><select name="size">{html_options options=$product.sizes selected="m"}</select></td>
  <td>{foreach $product.tags as $tag}{$tag|upper|escape:"url"}{if !$tag@last}, {/if}{/foreach}</td>
</tr>
